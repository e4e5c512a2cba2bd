#include "FileHelper.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <vector>

#include "Exceptions.h"
#include "slre.h"

namespace {

// strerror_r comes in two forms: the GNU one returns the text, the XSI one fills the buffer.
[[maybe_unused]] const char* ErrorTextOf(const char* text, const char*) {
    return text;
}
[[maybe_unused]] const char* ErrorTextOf(int result, const char* buffer) {
    return result == 0 ? buffer : "Unknown error";
}

std::string SystemError() {
    return SystemErrorText(errno);
}

// Files are opened without blocking (a FIFO with no writer must not hang the caller) and are not
// inherited by the commands the host runs.
const int kReadFlags = O_RDONLY | O_NONBLOCK | O_CLOEXEC;

// The folder that holds path, "." when the path names no folder.
std::string ContainingFolder(const std::string& path) {
    std::string folder = FileHelper::GetFilePath(path);
    return folder.empty() ? std::string(".") : folder;
}

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};

}  // namespace

std::string SystemErrorText(int error) {
    char buffer[256] = {};
    return ErrorTextOf(strerror_r(error, buffer, sizeof buffer), buffer);
}

// ---------------------------------------------------------------------------------------------
// Opening, reading, writing, closing

FileHelper::FileHelper(const std::string& path)
    : scratch_(), descriptor_(-1), path_(path), readOnly_(true), folder_(false) {
    struct stat status;
    if (stat(path_.c_str(), &status) != 0) {
        const std::string detail = "Cannot get status for '" + path_ + "': " + SystemError();
        if (errno == ENOENT) {
            throw FileNotFoundException(detail);
        }
        throw FileIoException(detail);
    }
    if (S_ISDIR(status.st_mode)) {
        folder_ = true;
        return;
    }
    descriptor_ = open(path_.c_str(), kReadFlags);
    if (descriptor_ == -1) {
        throw FileIoException("Cannot open file " + path_ + ": " + SystemError());
    }
}

FileHelper::FileHelper(const std::string& folder, const std::string& name, bool readOnly)
    : scratch_(), descriptor_(-1), path_(folder + name), readOnly_(false), folder_(false) {
    if (readOnly) {
        descriptor_ = open(path_.c_str(), kReadFlags);
    } else {
        std::replace(path_.begin(), path_.end(), '\\', '/');
        const std::string parent = ContainingFolder(path_);
        struct stat parentStatus;
        if (stat(parent.c_str(), &parentStatus) != 0) {
            throw FileIoException("Cannot read permissions of folder '" + parent + "': " + SystemError());
        }
        descriptor_ = open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, parentStatus.st_mode & 07777);
    }
    if (descriptor_ == -1) {
        throw FileIoException("Cannot open file " + path_ + ": " + SystemError());
    }
    struct stat status;
    if (stat(path_.c_str(), &status) != 0) {
        const std::string detail = "Cannot open file " + path_ + ": " + SystemError();
        close(descriptor_);  // no object will exist to close it
        throw FileIoException(detail);
    }
    if (S_ISDIR(status.st_mode)) {
        folder_ = true;
    }
}

FileHelper::~FileHelper() noexcept(false) {
    if (descriptor_ != -1 && close(descriptor_) == -1 && std::uncaught_exceptions() == 0) {
        throw FileIoException("Cannot close file " + path_ + ": " + SystemError());
    }
}

void FileHelperRelease::operator()(FileHelper* file) const {
    try {
        delete file;
    } catch (...) {
    }
}

void FileHelper::Close() {
    if (descriptor_ != -1) {
        if (close(descriptor_) == -1) {
            throw FileIoException("Cannot close file " + path_ + ": " + SystemError());
        }
        descriptor_ = -1;
    }
}

void FileHelper::Remove() {
    if (descriptor_ == -1) {
        return;
    }
    close(descriptor_);
    descriptor_ = -1;
    if (remove(path_.c_str()) != 0) {
        throw FileIoException("Cannot remove file " + path_ + ": " + SystemError());
    }
}

void FileHelper::ThrowIfNotOpen() const {
    if (descriptor_ < 0) {
        throw FileIoException("File '" + path_ + "' was not open");
    }
}

unsigned long long FileHelper::SetPosition(unsigned long long pos) const {
    ThrowIfNotOpen();
    const off64_t result = lseek64(descriptor_, static_cast<off64_t>(pos), SEEK_SET);
    // Only the low 32 bits are tested, as a 32-bit position would be.
    if (static_cast<int32_t>(static_cast<uint32_t>(result)) < 0) {
        if (result != -1) {
            errno = EOVERFLOW;  // the seek itself succeeded: the position does not fit
        }
        throw FileIoException("Error on positioning file '" + path_ + "': " + SystemError());
    }
    return static_cast<unsigned long long>(result);
}

void FileHelper::AdviseSequential(unsigned long long pos) const {
    if (descriptor_ >= 0) {
        posix_fadvise(descriptor_, static_cast<off_t>(pos), 0, POSIX_FADV_SEQUENTIAL);
    }
}

int32_t FileHelper::Read(char* buf, unsigned long long len) const {
    ThrowIfNotOpen();
    return static_cast<int32_t>(read(descriptor_, buf, static_cast<uint32_t>(len)));
}

int32_t FileHelper::Read(char* buf, unsigned long long pos, unsigned long long len) const {
    SetPosition(pos);
    return Read(buf, len);
}

template <typename T>
T FileHelper::ReadScalar(unsigned long long pos) {
    if (folder_) return 0;
    Read(scratch_, pos, sizeof(T));
    T value;
    std::memcpy(&value, scratch_, sizeof value);
    return value;
}

uint8_t FileHelper::GetUInt8(unsigned long long pos) {
    return ReadScalar<uint8_t>(pos);
}
uint16_t FileHelper::GetUInt16(unsigned long long pos) {
    return ReadScalar<uint16_t>(pos);
}
uint32_t FileHelper::GetUInt32(unsigned long long pos) {
    return ReadScalar<uint32_t>(pos);
}
uint64_t FileHelper::GetUInt64(unsigned long long pos) {
    return ReadScalar<uint64_t>(pos);
}

void FileHelper::WriteBlock(const char* buf, uint32_t len) {
    if (folder_) return;
    const ssize_t written = write(descriptor_, buf, len);
    if (written < 0 || static_cast<uint64_t>(written) < len) {
        throw FileIoException("Error on writing to file: " + path_ + ": " + SystemError());
    }
}

void FileHelper::AddBlankArea(uint32_t len) {
    if (len == 0) return;
    std::vector<char> zeros(len, 0);
    WriteBlock(zeros.data(), len);
}

void FileHelper::CopyData(FileHelper* dest, uint32_t from, uint32_t to) {
    if (to < from) {
        throw FileIoException("Cannot copy bytes " + std::to_string(from) + " to " + std::to_string(to) + " of " +
                              path_ + ": the range is reversed");
    }
    // Bytes that a short read leaves unfilled are copied as zeros.
    std::vector<char> buffer(to - from, 0);
    Read(buffer.data(), from, buffer.size());
    dest->WriteBlock(buffer.data(), static_cast<uint32_t>(buffer.size()));
}

std::string FileHelper::GetFilePath(const std::string& path) {
    const std::string::size_type slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

uint32_t FileHelper::GetSize(const std::string& path) {
    struct stat status;
    int result = stat(path.c_str(), &status);
    if (result == 0 && !S_ISDIR(status.st_mode) && status.st_size > INT32_MAX) {
        errno = EOVERFLOW;
        result = -1;
    }
    if (result != 0) {
        throw FileIoException("Cannot get size of '" + path + "':" + SystemError());
    }
    return S_ISDIR(status.st_mode) ? 0 : static_cast<uint32_t>(status.st_size);
}

// ---------------------------------------------------------------------------------------------
// File-system queries and attributes

bool FileHelper::IsExist(const std::string& path) {
    struct stat status;
    if (stat(path.c_str(), &status) != 0) {
        return false;
    }
    if (S_ISDIR(status.st_mode)) {
        return true;
    }
    const int descriptor = open(path.c_str(), kReadFlags);
    if (descriptor == -1) {
        return false;
    }
    close(descriptor);
    return true;
}

bool FileHelper::IsFolder(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool FileHelper::IsSymlink(const std::string& path) {
    struct stat status;
    if (lstat(path.c_str(), &status) != 0) {
        throw FileIoException("Cannot lstat path: \"" + path + "\"");
    }
    return S_ISLNK(status.st_mode);
}

std::string FileHelper::GetSymlink(const std::string& path) {
    struct stat status;
    if (lstat(path.c_str(), &status) != 0) {
        throw FileIoException("Cannot get symlink path: " + path);
    }
    // The size lstat reports is the target's length; some file systems report 0, and a link can
    // change in between, so grow the buffer until the whole target fits.
    std::vector<char> buffer(static_cast<size_t>(status.st_size > 0 ? status.st_size : PATH_MAX) + 1);
    for (;;) {
        const ssize_t length = readlink(path.c_str(), buffer.data(), buffer.size());
        if (length < 0) {
            throw FileIoException("Cannot get symlink path: " + path);
        }
        if (static_cast<size_t>(length) < buffer.size()) {
            return std::string(buffer.data(), static_cast<size_t>(length));
        }
        buffer.resize(buffer.size() * 2);
    }
}

time_t FileHelper::GetModificationTime(const std::string& path) {
    struct stat status;
    if (stat(path.c_str(), &status) != 0) {
        throw FileIoException("Cannot get modification time of '" + path + "':" + SystemError());
    }
    return status.st_mtime;
}

std::string FileHelper::GetFileName(const std::string& path) {
    return GetFileName(path, '/');
}

std::string FileHelper::GetFileName(const std::string& path, char separator) {
    const std::string::size_type position = path.rfind(separator);
    return position == std::string::npos ? path : path.substr(position + 1);
}

std::string FileHelper::GetFileExtension(const std::string& path) {
    const std::string::size_type dot = path.rfind('.');
    return dot == std::string::npos ? std::string() : path.substr(dot + 1);
}

std::string FileHelper::GetSystemFullPath(const std::string& path) {
    char resolved[PATH_MAX];
    if (realpath(path.c_str(), resolved) == nullptr) {
        return std::string();
    }
    return resolved;
}

std::string FileHelper::GetExecutableDirectory() {
    char target[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", target, sizeof target - 1);
    if (length <= 0) {
        return std::string();
    }
    return GetFilePath(std::string(target, static_cast<size_t>(length)));
}

std::string FileHelper::GetWorkingDirectory() {
    std::vector<char> buffer(PATH_MAX);
    while (getcwd(buffer.data(), buffer.size()) == nullptr) {
        if (errno != ERANGE) {
            return std::string();
        }
        buffer.resize(buffer.size() * 2);
    }
    return buffer.data();
}

std::string FileHelper::GetFullName(const std::string& path, bool relativeToExecutable) {
    std::string name = path;
    if (name.empty() || name[0] != '/') {
        const std::string base = relativeToExecutable ? GetExecutableDirectory() : GetWorkingDirectory();
        name = name.empty() ? base : base + "/" + name;
    }
    if (IsExist(name)) {
        std::string resolved = GetSystemFullPath(name);
        if (!resolved.empty()) {
            return resolved;
        }
    }
    return name;
}

bool FileHelper::IsPattern(const std::string& text) {
    return text.find_first_of("*?") != std::string::npos;
}

void FileHelper::CopyAttributesFrom(const FileHelper& other) {
    struct stat status;
    if (stat(other.path_.c_str(), &status) != 0) {
        throw FileIoException("Cannot read permissions of file: " + other.path_);
    }
    if (chmod(path_.c_str(), status.st_mode & 07777) != 0) {
        throw FileIoException("Cannot restore permissions in file: " + path_);
    }
}

void FileHelper::CopyGroupFrom(const FileHelper& other) {
    struct stat status;
    if (stat(other.path_.c_str(), &status) != 0) {
        throw FileIoException("Cannot read the group of file: " + other.path_);
    }
    if (chown(path_.c_str(), static_cast<uid_t>(-1), status.st_gid) != 0) {
        throw FileIoException("Cannot restore group in file: " + path_);
    }
}

void FileHelper::InheritParentPermissions(const std::string& path) {
    const std::string folder = ContainingFolder(path);
    struct stat status;
    if (stat(folder.c_str(), &status) != 0) {
        throw FileIoException("Cannot read permissions of folder '" + folder + "': " + SystemError());
    }
    if (chmod(path.c_str(), status.st_mode & 07777) != 0) {
        throw FileIoException("Cannot restore permissions for file '" + path + "': " + SystemError());
    }
}

void FileHelper::Rename(const std::string& newPath) {
    Close();
    if (IsExist(newPath) && remove(newPath.c_str()) != 0) {
        throw FileIoException("Cannot remove file " + newPath + ": " + SystemError());
    }
    if (rename(path_.c_str(), newPath.c_str()) != 0) {
        throw FileIoException("Cannot rename file " + path_ + ": " + SystemError());
    }
    path_ = newPath;
}

std::list<std::string> FileHelper::ListXAttrs() {
    std::list<std::string> names;
    const ssize_t size = listxattr(path_.c_str(), nullptr, 0);
    if (size < 0) {
        throw FileIoException("Cannot read xattr list of '" + path_ + "':" + SystemError());
    }
    std::vector<char> buffer(static_cast<size_t>(size) + 1, 0);
    const ssize_t read = listxattr(path_.c_str(), buffer.data(), static_cast<size_t>(size));
    if (read < 0) {
        throw FileIoException("Cannot read xattr list of '" + path_ + "':" + SystemError());
    }
    // The names follow each other, each ended by a NUL.
    for (size_t start = 0; start < static_cast<size_t>(read);) {
        const std::string name(buffer.data() + start);
        start += name.size() + 1;
        if (!name.empty()) names.push_back(name);
    }
    return names;
}

void FileHelper::ReadXAttr(const std::string& name, char*& value, long long& size) {
    const std::string detail = "Cannot read xattr '" + name + "' of '" + path_ + "':";
    const ssize_t length = getxattr(path_.c_str(), name.c_str(), nullptr, 0);
    if (length < 0) {
        if (errno == ENODATA) {
            throw FileNotFoundException(detail + SystemError());
        }
        throw FileIoException(detail + SystemError());
    }
    std::unique_ptr<char[]> buffer = std::make_unique<char[]>(static_cast<size_t>(length) + 1);
    const ssize_t read = getxattr(path_.c_str(), name.c_str(), buffer.get(), static_cast<size_t>(length));
    if (read < 0) {
        throw FileIoException(detail + SystemError());
    }
    value = buffer.release();
    size = read;
}

void FileHelper::WriteXAttr(const std::string& name, const char* value, long long size) {
    if (size < 0 || setxattr(path_.c_str(), name.c_str(), value, static_cast<size_t>(size), 0) != 0) {
        if (size < 0) errno = EINVAL;
        throw FileIoException("Cannot write " + std::to_string(size) + " bytes into " + name + "' xattr of '" + path_ +
                              "':" + SystemError());
    }
}

void FileHelper::RemoveXAttr(const std::string& name) {
    if (removexattr(path_.c_str(), name.c_str()) != 0) {
        throw FileIoException("Cannot remove '" + name + "' xattr of '" + path_ + "':" + SystemError());
    }
}

// ---------------------------------------------------------------------------------------------
// Folder operations

void FileHelper::ProcessFolder(std::list<std::string>* list, const std::string& folder, const std::string& prefix,
                               FolderAction action) {
    WalkFolder(list, folder, prefix, action, true);
}

// One level of a walk. Each subfolder is removed by the level above it, after its contents, and
// the folder the caller named is removed last by the top level.
void FileHelper::WalkFolder(std::list<std::string>* list, const std::string& folder, const std::string& prefix,
                            FolderAction action, bool top) {
    char remembered[4096] = {0};
    if (getcwd(remembered, sizeof remembered) == nullptr) {
        remembered[0] = '\0';
    }
    if (chdir(folder.c_str()) != 0) {
        return;
    }
    // The stream is closed on every way out; an exception leaves the working directory inside the
    // folder, and callers that go on restore it themselves.
    std::unique_ptr<DIR, DirCloser> directory(opendir("."));
    if (!directory) {
        if (chdir(remembered) != 0) {
            // Nothing more can be done: the remembered folder is gone.
        }
        return;
    }
    while (struct dirent* entry = readdir(directory.get())) {
        const std::string name = entry->d_name;
        if (name == "." || name == "..") {
            continue;
        }
        const std::string path = folder + "/" + name;
        struct stat status;
        if (lstat(name.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
            WalkFolder(list, path, prefix + name + "/", action, false);
            if (action == FolderActionDelete && rmdir(path.c_str()) != 0) {
                throw FileIoException("Cannot delete directory " + path + ": " + SystemError());
            }
        } else if (action == FolderActionList) {
            if (list != nullptr) list->push_back(prefix + name);
        } else if (action == FolderActionDelete && remove(path.c_str()) != 0) {
            throw FileIoException("Cannot remove file " + path + ": " + SystemError());
        }
    }
    directory.reset();
    if (chdir(remembered) != 0) {
        // As above: a working directory that vanished cannot be restored.
    }
    if (top && action == FolderActionDelete && rmdir(folder.c_str()) != 0) {
        throw FileIoException("Cannot delete directory " + folder + ": " + SystemError());
    }
}

void FileHelper::GetFolderContent(std::list<std::string>* list, const std::string& folder) {
    ProcessFolder(list, folder, std::string(), FolderActionList);
}

void FileHelper::DeleteFolder(const std::string& folder) {
    ProcessFolder(nullptr, folder, std::string(), FolderActionDelete);
}

int FileHelper::CreateFolder(const std::string& path) {
    if (mkdir(path.c_str(), 0777) != 0) {
        throw FileIoException("Cannot create directory " + path + ": " + SystemError());
    }
    return 0;
}

int FileHelper::RenameFolder(const std::string& from, const std::string& to) {
    if (rename(from.c_str(), to.c_str()) != 0) {
        throw FileIoException("Cannot rename folder " + from + ": " + SystemError());
    }
    return 0;
}

// ---------------------------------------------------------------------------------------------
// Wildcard listing

namespace {

// Turns the wildcard part of a pattern into an anchored regular expression over relative paths.
std::string WildcardToRegex(const std::string& wildcard) {
    std::string regex = "^";
    for (std::string::size_type i = 0; i < wildcard.size(); ++i) {
        const char c = wildcard[i];
        if (c == '*' && i + 1 < wildcard.size() && wildcard[i + 1] == '*') {
            if (i + 2 < wildcard.size() && wildcard[i + 2] == '/') {
                regex += "(.*/)?";  // any folders, none included
                i += 2;
            } else {
                regex += ".*";
                i += 1;
            }
        } else if (c == '*') {
            regex += "[^/]*";
        } else if (c == '?') {
            regex += "[^/]";
        } else {
            if (std::strchr(".^$|()[]{}*+?\\", c) != nullptr) regex += '\\';
            regex += c;
        }
    }
    return regex + "$";
}

}  // namespace

int FileHelper::ParseWildcards(const std::string& pattern, std::list<std::string>& files, const FolderLister& lister) {
    if (!IsPattern(pattern)) {
        if (IsExist(pattern) && !IsFolder(pattern)) {
            files.push_back(pattern);
            return 1;
        }
        return 0;
    }
    // The folder part is everything up to the last slash before the first wildcard.
    const std::string::size_type firstWildcard = pattern.find_first_of("*?");
    const std::string::size_type slash = pattern.rfind('/', firstWildcard);
    std::string base;      // the folder as written in the pattern
    std::string wildcard;  // the part matched against paths below it
    if (slash == std::string::npos) {
        wildcard = pattern;
    } else {
        base = pattern.substr(0, slash == 0 ? 1 : slash);
        wildcard = pattern.substr(slash + 1);
    }
    std::string folder = base;
    if (folder.empty()) {
        folder = GetWorkingDirectory();
    } else if (folder[0] != '/') {
        folder = GetWorkingDirectory() + "/" + folder;
    }

    std::list<std::string> candidates;
    if (lister) {
        lister(&candidates, folder);
    } else {
        GetFolderContent(&candidates, folder);
    }
    const std::string regex = WildcardToRegex(wildcard);
    std::vector<std::string> matches;
    for (const std::string& relative : candidates) {
        if (slre_match(regex.c_str(), relative.c_str(), static_cast<int>(relative.size()), nullptr, 0, 0) >= 0) {
            if (base.empty()) {
                matches.push_back(relative);
            } else {
                matches.push_back(base.back() == '/' ? base + relative : base + "/" + relative);
            }
        }
    }
    std::sort(matches.begin(), matches.end());
    files.insert(files.end(), matches.begin(), matches.end());
    return static_cast<int>(matches.size());
}

int FileHelper::GetFileList(const std::string& /*pattern*/, std::list<std::string>& /*files*/) {
    return 0;
}

int FileHelper::ParseFolder(const std::string& /*folder*/, std::list<std::string>& /*files*/) {
    return 0;
}
