// The foundation as tables. Each tests/data/vectors/foundation-NAME.vec is a script of rows
// "operation | argument | ... => expected", run in order in one fresh folder. A result is the
// operation's answer as text, or "!Class: what()" for what it threw; it is compared whole.
// Fields are trimmed; \s is a blank, \xHH a byte, \| a bar, \\ a backslash; {T} is the folder,
// {CWD} the working directory the test started in, {EXE} the folder of this program.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <typeinfo>

#include "Base.h"
#include "Exceptions.h"
#include "FileHelper.h"
#include "TestSupport.h"
#include "UtcTime.h"
#include "slre.h"

namespace {

typedef std::vector<std::string> Args;

std::string Trim(const std::string& text) {
    const auto first = text.find_first_not_of(" \t"), last = text.find_last_not_of(" \t");
    return first == std::string::npos ? std::string() : text.substr(first, last - first + 1);
}

std::string Unescape(const std::string& text) {
    static const std::string kNames = "sntrvf", kBytes = " \n\t\r\v\f";
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            out += text[i];
        } else if (text[++i] == 'x') {
            out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            out += kNames.find(text[i]) != std::string::npos ? kBytes[kNames.find(text[i])] : text[i];
        }
    }
    return out;
}

void ReplaceAll(std::string& text, const std::string& from, const std::string& to) {
    for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
}

std::string Join(const std::list<std::string>& items) {
    std::string text;
    for (const std::string& item : items) text += (text.empty() ? "" : ",") + item;
    return text;
}

std::list<std::string> Split(const std::string& text) {
    std::list<std::string> items;
    std::istringstream in(text);
    for (std::string item; std::getline(in, item, ',');) items.push_back(item);
    return items;
}

const unsigned char* Bytes(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}
unsigned long long N(const std::string& text) {
    return std::stoull(text, nullptr, 0);
}
// A number of a table as the type of the parameter it is passed to (wrapping as a conversion does).
template <typename T>
T As(const std::string& text) {
    return static_cast<T>(N(text));
}
uint32_t Size(const std::string& text) {
    return static_cast<uint32_t>(text.size());
}
std::string Bool(bool value) {
    return value ? "true" : "false";
}
std::string Hex(unsigned long long v) {
    char t[24];
    std::snprintf(t, sizeof t, "0x%llx", v);
    return t;
}
// The test's own system calls answer nothing when they work.
std::string Sys(int result) {
    return result == 0 ? "" : "<failed: " + std::string(std::strerror(errno)) + ">";
}

// The dynamic class of what was thrown: the mangled name of a global class is its length and name.
std::string ClassOf(const std::exception& e) {
    const std::string name = typeid(e).name();
    return name.substr(name.find_first_not_of("0123456789"));
}

#define PREFIXED(C)                                                   \
    {                                                                 \
#C, [](const Args& a) { if (a.size() < 2) throw C(); throw C(a[1]); } \
    }
#define PLAIN(C)                                    \
    {                                               \
#C, [](const Args& a) { throw C(a.at(1)); } \
    }
const std::map<std::string, std::function<void(const Args&)>> kThrowers = {
    PREFIXED(FileIoException),
    PREFIXED(DigestException),
    PREFIXED(NotImplementedException),
    PREFIXED(FileNotFoundException),
    PREFIXED(InvalidFileStructureException),
    PREFIXED(NotSupportedFileFormatException),
    PREFIXED(ArgumentException),
    PREFIXED(DataFormatException),
    PREFIXED(Pkcs7InnerException),
    PLAIN(NotSupportedException),
    PLAIN(NotDefinedException),
    PLAIN(Base64OperationException),
    PLAIN(InternalErrorException),
    {"FileIoException/char", [](const Args& a) { throw FileIoException(a.at(1).c_str()); }},
    {"DigestException/char", [](const Args& a) { throw DigestException(a.at(1).c_str()); }}};

struct Script {
    TempFolder temp;
    std::map<std::string, std::unique_ptr<FileHelper>> files;
    std::list<std::string> listed;  // the made-up file system of "glob"
    std::string asked;
    FileHelper& operator[](const std::string& n) { return files.at(n) ? *files.at(n) : throw std::out_of_range(n); }
};

typedef std::function<std::string(Script&, const Args&)> Operation;

std::string Matches(int count, const std::list<std::string>& found) {
    return std::to_string(count) + ":" + (found.empty() ? "" : " " + Join(found));
}

// An operation reads its arguments a and the script s; OP gives its answer, DO answers nothing.
#define OP(...)                                   \
    [](Script& s, const Args& a) -> std::string { \
        (void)s, (void)a;                         \
        __VA_ARGS__                               \
    }
#define DO(...) OP(__VA_ARGS__; return std::string();)
#define IS(...) OP(return __VA_ARGS__;)
const std::map<std::string, Operation> kOperations = {
    // Exceptions, Base, UTC time, slre.
    {"throw", OP(kThrowers.at(a[0])(a); return "<nothing thrown>";)},
    {"family", OP(
                   try {
                       kThrowers.at(a[0])(Args{a[0], "d"});
                   } catch (const std::exception& e) {
                       return std::string(dynamic_cast<const FileIoException*>(&e) ? "FileIoException," : "") +
                              (dynamic_cast<const std::runtime_error*>(&e) ? "runtime_error" : "");
                   } return "<nothing thrown>";)},
    {"align", IS(std::to_string(Base::AlignUp(As<uint32_t>(a[0]), As<uint32_t>(a[1]))))},
    {"roundup", IS(std::to_string(Base::RoundUp(As<uint32_t>(a[0]), N(a[1]) & 0xFF)))},
    {"rfind", IS(std::to_string(Base::RFind(a[0].data(), Size(a[0]), a[1].data(), Size(a[1]))))},
    {"swap", OP(std::string b = a[0]; Base::SwapEndian(reinterpret_cast<unsigned char*>(&b[0]), Size(b)); return b;)},
    {"trim", IS(Base::StrTrim(a[0]))},
    {"replace", OP(std::string t = a[0];
                   if (&Base::Replace(t, As<uint32_t>(a[1]), As<uint32_t>(a[2]), a[3], a[4]) != &t) return "<a copy>";
                   return t.size() > 80 ? std::to_string(t.size()) + " bytes ending " + t.substr(t.size() - 4) : t;)},
    {"hex", IS(Base::DumpBufferToString(Bytes(a[0]), a[0].size(), a[1] == "upper"))},
    {"dump", OP(testing::internal::CaptureStdout(); Base::DumpBuffer(Bytes(a[0]), a[0].size());
                return testing::internal::GetCapturedStdout();)},
    {"utc", OP(struct tm t = {}; long long year = 0;
               EXPECT_EQ(std::sscanf(a[0].c_str(), "%lld-%d-%d %d:%d:%d", &year, &t.tm_mon, &t.tm_mday, &t.tm_hour,
                                     &t.tm_min, &t.tm_sec),
                         6);
               t.tm_year = static_cast<int>(year - 1900), t.tm_mon -= 1, t.tm_wday = 5, t.tm_yday = 300;  // ignored
               return std::to_string(mktime_utc(&t));)},
    {"leap", IS(Bool(is_leap_year(std::stoi(a[0]))))},
    {"leapsec", IS(std::to_string(leap_seconds(std::stoi(a[0]))))},
    {"re", IS(std::to_string(slre_match(a[0].c_str(), a[1].data(), static_cast<int>(a[1].size()), nullptr, 0,
                                        a.size() > 2 && a[2] == "i" ? SLRE_IGNORE_CASE : 0)))},
    {"cap", OP(slre_cap caps[4]; std::list<std::string> texts; const int n = As<int>(a[2]);
               const int end = slre_match(a[0].c_str(), a[1].data(), static_cast<int>(a[1].size()), caps, n, 0);
               for (int i = 0; end >= 0 && i < n; ++i)
                   texts.push_back(caps[i].ptr ? std::string(caps[i].ptr, caps[i].len) : "-");
               return std::to_string(end) + ":" + Join(texts);)},
    // Wildcards: a lister over a made-up file system (it records the folder it is asked for).
    {"listed", DO(s.listed = Split(a[0]))},
    {"glob",
     OP(auto lister =
            [&s](std::list<std::string>* list, const std::string& folder) {
                s.asked = folder;
                const std::string prefix = folder.back() == '/' ? folder : folder + "/";
                for (const std::string& path : s.listed)
                    if (path.compare(0, prefix.size(), prefix) == 0) list->push_back(path.substr(prefix.size()));
            };
        std::list<std::string> found{"earlier"}; const int count = FileHelper::ParseWildcards(a[0], found, lister);
        if (found.front() != "earlier") return "<earlier entries lost>"; found.pop_front();
        return s.asked + " -> " + Matches(count, found);)},
    {"fsglob", OP(std::list<std::string> found; const int count = FileHelper::ParseWildcards(a[0], found);
                  return Matches(count, found);)},
    {"stubs", OP(std::list<std::string> f; const int n = FileHelper::GetFileList(a[0], f);
                 return Matches(n + FileHelper::ParseFolder(a[0], f), f);)},
    // The test's own steps.
    {"make-file", DO(std::filesystem::create_directories(std::filesystem::path(a[0]).parent_path());
                     std::ofstream(a[0], std::ios::binary) << (a.size() > 1 ? a[1] : ""))},
    {"make-dir", IS(Sys(mkdir(a[0].c_str(), 0) + chmod(a[0].c_str(), As<mode_t>(a[1]))))},
    {"make-link", IS(Sys(symlink(a[0].c_str(), a[1].c_str())))},
    {"make-fifo", IS(Sys(mkfifo(a[0].c_str(), 0600)))},
    {"make-socket",
     OP(const int fd = socket(AF_UNIX, SOCK_STREAM, 0); sockaddr_un address = {}; address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, a[0].c_str(), sizeof address.sun_path - 1);
        const int result = bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
        return Sys(result + close(fd));)},
    {"chmod", IS(Sys(chmod(a[0].c_str(), As<mode_t>(a[1]))))},
    {"set-size", IS(Sys(truncate(a[0].c_str(), N(a[1]))))},
    {"set-mtime", OP(const timeval times[2] = {{static_cast<time_t>(N(a[1])), 0}, {static_cast<time_t>(N(a[1])), 0}};
                     return Sys(utimes(a[0].c_str(), times));)},
    {"unlink", IS(Sys(unlink(a[0].c_str())))},
    {"chdir", IS(Sys(chdir(a[0].c_str())))},
    {"umask", DO(umask(As<mode_t>(a[0])))},
    {"mode", OP(struct stat st = {}; char text[8]; if (stat(a[0].c_str(), &st) != 0) return Sys(-1);
                std::snprintf(text, sizeof text, "%04o", st.st_mode & 07777u); return text;)},
    {"content",
     OP(std::ifstream in(a[0], std::ios::binary); return std::string(std::istreambuf_iterator<char>(in), {});)},
    // FileHelper objects.
    {"open", DO(s.files[a[0]].reset(new FileHelper(a[1])))},
    {"open2", DO(s.files[a[0]].reset(new FileHelper(a[1], a[2], a[3] == "r")))},
    {"info", OP(FileHelper& f = s[a[0]]; return std::string(f.IsFolder() ? "folder" : "file") +
                                                (f.IsReadOnly() ? " read-only " : " ") +
                                                std::to_string(f.GetBufferSize()) + " " + f.GetPath();)},
    {"close", DO(s[a[0]].Close())},
    // Closes the object's descriptor behind its back, so that its own close fails.
    {"steal", DO(for (const auto& fd
                      : std::filesystem::directory_iterator("/proc/self/fd")) {
         std::error_code error;
         if (std::filesystem::read_symlink(fd.path(), error) == s[a[0]].GetPath())
             close(std::stoi(fd.path().filename()));
     })},
    {"delete", DO(delete s.files.at(a[0]).release())},
    {"delete-unwinding", OP(
                             struct Deleter {
                                 FileHelper* f;
                                 ~Deleter() {
                                     delete f;
                                 }
                             };
                             try {
                                 Deleter d{s.files.at(a[0]).release()};
                                 throw std::logic_error("unwound");
                             } catch (const std::logic_error& e) { return e.what(); })},
    {"remove", DO(s[a[0]].Remove())},
    {"pos", IS(std::to_string(s[a[0]].SetPosition(N(a[1]))))},
    {"read", OP(std::vector<char> buffer(As<size_t>(a[2]));
                return std::to_string(s[a[0]].Read(buffer.data(), N(a[1]), buffer.size()));)},
    {"u8", IS(Hex(s[a[0]].GetUInt8(N(a[1]))))},
    {"u16", IS(Hex(s[a[0]].GetUInt16(N(a[1]))))},
    {"u32", IS(Hex(s[a[0]].GetUInt32(N(a[1]))))},
    {"u64", IS(Hex(s[a[0]].GetUInt64(N(a[1]))))},
    {"write", DO(s[a[0]].WriteBlock(a[1].data(), Size(a[1])))},
    {"blank", DO(s[a[0]].AddBlankArea(As<uint32_t>(a[1])))},
    {"copy", DO(s[a[0]].CopyData(&s[a[1]], As<uint32_t>(a[2]), As<uint32_t>(a[3])))},
    {"attrs", DO(s[a[0]].CopyAttributesFrom(s[a[1]]))},
    {"group", DO(s[a[0]].CopyGroupFrom(s[a[1]]))},
    {"rename", DO(s[a[0]].Rename(a[1]))},
    {"xlist", OP(std::list<std::string> names = s[a[0]].ListXAttrs(); names.sort(); return Join(names);)},
    {"xread", OP(char* value = nullptr; long long size = -1; s[a[0]].ReadXAttr(a[1], value, size);
                 return std::string(std::unique_ptr<char[]>(value).get(), static_cast<size_t>(size));)},
    {"xwrite", DO(s[a[0]].WriteXAttr(a[1], a[2].data(), a.size() > 3 ? std::stoll(a[3]) : a[2].size()))},
    {"xremove", DO(s[a[0]].RemoveXAttr(a[1]))},
    // Path queries and folder operations.
    {"size", IS(std::to_string(FileHelper::GetSize(a[0])))},
    {"exists", IS(Bool(FileHelper::IsExist(a[0])))},
    {"isdir", IS(Bool(FileHelper::IsFolder(a[0])))},
    {"islink", IS(Bool(FileHelper::IsSymlink(a[0])))},
    {"readlink", IS(FileHelper::GetSymlink(a[0]))},
    {"mtime", IS(std::to_string(FileHelper::GetModificationTime(a[0])))},
    {"dirname", IS(FileHelper::GetFilePath(a[0]))},
    {"basename", IS(a.size() > 1 ? FileHelper::GetFileName(a[0], a[1][0]) : FileHelper::GetFileName(a[0]))},
    {"ext", IS(FileHelper::GetFileExtension(a[0]))},
    {"ispattern", IS(Bool(FileHelper::IsPattern(a[0])))},
    {"realpath", IS(FileHelper::GetSystemFullPath(a[0]))},
    {"fullname", IS(FileHelper::GetFullName(a[0], a[1] == "exe"))},
    {"cwd", IS(FileHelper::GetWorkingDirectory())},
    {"exedir", IS(FileHelper::GetExecutableDirectory())},
    {"inherit", DO(FileHelper::InheritParentPermissions(a[0]))},
    {"list",
     OP(std::list<std::string> found; FileHelper::GetFolderContent(&found, a[0]); found.sort(); return Join(found);)},
    {"walk", OP(std::list<std::string> found; const int action = std::stoi(a[2]);
                FileHelper::ProcessFolder(&found, a[0], a[1], static_cast<FileHelper::FolderAction>(action));
                found.sort(); return Join(found);)},
    {"deletefolder", DO(FileHelper::DeleteFolder(a[0]))},
    {"mkfolder", IS(std::to_string(FileHelper::CreateFolder(a[0])))},
    {"renamefolder", IS(std::to_string(FileHelper::RenameFolder(a[0], a[1])))},
};

class FoundationVectors : public testing::TestWithParam<const char*> {};

TEST_P(FoundationVectors, EveryRowGivesItsResult) {
    const std::string path = std::string(SIGNING_TEST_DATA) + "/vectors/foundation-" + GetParam() + ".vec";
    std::ifstream in(path);
    ASSERT_TRUE(in.good()) << path;
    Script script;
    if (std::string(GetParam()) == "xattr" && setxattr(script.temp.Path().c_str(), "user.probe", "", 0, 0) != 0)
        GTEST_SKIP() << "no user extended attributes in " << script.temp.Path();
    // Rows may change the working directory and the umask; both come back whatever happens.
    struct Restore {
        const std::string cwd = std::filesystem::current_path().string();
        const mode_t mask = umask(022);
        ~Restore() {
            umask(mask);
            EXPECT_EQ(chdir(cwd.c_str()), 0);
        }
    } restore;
    const std::map<std::string, std::string> places = {
        {"{T}", script.temp.Path()},
        {"{CWD}", restore.cwd},
        {"{EXE}", std::filesystem::read_symlink("/proc/self/exe").parent_path().string()}};
    int rows = 0;
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        if (Trim(line).empty() || line[0] == '#') continue;
        const size_t arrow = line.find("=>");
        Args fields{""};
        for (size_t i = 0; i < std::min(arrow, line.size()); ++i) {
            if (line[i] == '|') fields.emplace_back();
            else fields.back() += line[i];
            if (line[i] == '\\' && i + 1 < line.size()) fields.back() += line[++i];
        }
        std::string expected = Trim(arrow == std::string::npos ? std::string() : line.substr(arrow + 2));
        for (std::string& field : fields) field = Trim(field);
        for (const auto& place : places) {
            ReplaceAll(expected, place.first, place.second);
            for (std::string& field : fields) ReplaceAll(field, place.first, place.second);
        }
        const auto operation = kOperations.find(fields[0]);
        ASSERT_NE(operation, kOperations.end()) << path << ":" << number << ": unknown operation " << fields[0];
        Args args;
        for (size_t i = 1; i < fields.size(); ++i) args.push_back(Unescape(fields[i]));
        std::string result;
        try {
            result = operation->second(script, args);
        } catch (const std::exception& e) {
            result = "!" + ClassOf(e) + ": " + e.what();
        }
        EXPECT_EQ(result, Unescape(expected)) << path << ":" << number << ": " << line;
        ++rows;
    }
    EXPECT_GT(rows, 0);
}

INSTANTIATE_TEST_SUITE_P(Tables, FoundationVectors,
                         testing::Values("exceptions", "base", "utc", "slre", "wildcards", "files", "folders", "xattr"),
                         [](const testing::TestParamInfo<const char*>& table) { return std::string(table.param); });

}  // namespace

// mktime_utc against the C library's gmtime over the whole positive 32-bit range.
TEST(UtcTime, InvertsGmtime) {
    for (int64_t second = 0; second <= INT32_MAX; second += 86400 * 37 + 3607) {
        const time_t when = static_cast<time_t>(second);
        struct tm t;
        gmtime_r(&when, &t);
        ASSERT_EQ(mktime_utc(&t), when);
    }
}

TEST(UtcTime, FormatsTheCurrentTimeIn128Bytes) {
    const time_t before = time(nullptr);
    EXPECT_GE(std::stoll(utc_time("%s")), before);
    EXPECT_LE(std::stoll(utc_time("%s")), time(nullptr));
    EXPECT_EQ(utc_time(std::string(127, 'x')), std::string(127, 'x'));
    EXPECT_EQ(utc_time(std::string(128, 'x')), "");
}
