// The host functions that the module imports, over the reference host's session.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <vector>

#include "HostSession.h"

namespace {

std::vector<std::string>* logRecord = nullptr;
bool logEcho = true;

// The live environments by their reference text.
std::map<std::string, Environment*>& Environments() {
    static std::map<std::string, Environment*> environments;
    return environments;
}

std::string NewReference(Environment* environment) {
    static unsigned long long serial = 0;
    std::string reference = "environment#" + std::to_string(++serial);
    Environments()[reference] = environment;
    return reference;
}

}  // namespace

Environment::Environment() : reference_(NewReference(this)) {}

Environment::Environment(const Environment& other) : entries(other.entries), reference_(NewReference(this)) {}

Environment& Environment::operator=(const Environment& other) {
    entries = other.entries;
    return *this;
}

Environment::~Environment() {
    Environments().erase(reference_);
}

namespace host {

void SetLogRecord(std::vector<std::string>* lines) {
    logRecord = lines;
}

void SetLogEcho(bool echo) {
    logEcho = echo;
}

HostComponent& HostProduct::AddComponent(const std::string& id, const std::string& folder, const std::string& file,
                                         const std::string& type) {
    owned_.emplace_back(new HostComponent(id, folder, file, type));
    components_.push_back(owned_.back().get());
    return *owned_.back();
}

}  // namespace host

host::HostProduct& session_t::AddProduct() {
    products_.emplace_back(new host::HostProduct());
    productList_.push_back(products_.back().get());
    return *products_.back();
}

std::string Component::id() const {
    return static_cast<const host::HostComponent*>(this)->id_;
}

std::string Component::packageFolder() const {
    return static_cast<const host::HostComponent*>(this)->folder_;
}

std::string Component::packageFile() const {
    return static_cast<const host::HostComponent*>(this)->file_;
}

std::string Component::type() const {
    return static_cast<const host::HostComponent*>(this)->type_;
}

Environment* Component::environment() const {
    return &const_cast<host::HostComponent*>(static_cast<const host::HostComponent*>(this))->environment_;
}

Environment* Product::environment() const {
    return &const_cast<host::HostProduct*>(static_cast<const host::HostProduct*>(this))->environment_;
}

const std::vector<Component*>& Product::components() const {
    return static_cast<const host::HostProduct*>(this)->components_;
}

const std::vector<Product*>& TSD::products() const {
    return static_cast<const session_t*>(this)->Products();
}

TSD* session_get_tsd(session_t* session) {
    return session;
}

void print_log(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    va_list copy;
    va_copy(copy, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    std::string line(length > 0 ? length : 0, '\0');
    if (length > 0) std::vsnprintf(&line[0], line.size() + 1, format, arguments);
    va_end(arguments);
    if (logRecord != nullptr) logRecord->push_back(line);
    if (logEcho) {
        std::fprintf(stderr, "%s%s", line.c_str(), !line.empty() && line.back() == '\n' ? "" : "\n");
    }
}

std::string env_get_string(session_t* session, const char* key) {
    const auto found = session->variables.find(key);
    return found == session->variables.end() ? "" : found->second;
}

void env_set_string(session_t* session, const char* key, const char* value) {
    session->variables[key] = value;
    session->assignments.emplace_back(key, value);
}

void env_set_string(session_t* session, const std::string& key, const std::string& value) {
    env_set_string(session, key.c_str(), value.c_str());
}

std::string env_get_string_internal(Environment* map, const char* key) {
    const auto found = map->entries.find(key);
    return found == map->entries.end() ? "" : found->second;
}

Environment* castStringToEnvPointer(const std::string& text) {
    const auto found = Environments().find(text);
    return found == Environments().end() ? nullptr : found->second;
}

// ${NAME} becomes the session variable NAME (empty when unset); anything else stays as written.
std::string expand_operand(session_t* session, const std::string& text, bool) {
    std::string expanded;
    size_t position = 0;
    for (;;) {
        const size_t start = text.find("${", position);
        const size_t end = start == std::string::npos ? std::string::npos : text.find('}', start + 2);
        if (end == std::string::npos) {
            return expanded + text.substr(position);
        }
        expanded += text.substr(position, start - position) +
                    env_get_string(session, text.substr(start + 2, end - start - 2).c_str());
        position = end + 1;
    }
}

std::string expand_operand(session_t* session, const char* text, bool flag) {
    return expand_operand(session, std::string(text), flag);
}

int file_exists(const std::string& path, bool) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 ? 1 : 0;
}

// Only a regular file of bounded size is read: a pipe would block the installer and a device
// such as /dev/zero would never end.
std::vector<std::string> readContentOfTextFile(const std::string& path) {
    std::vector<std::string> lines;
    const int descriptor = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0) return lines;
    struct stat status;
    std::string text;
    if (fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) &&
        static_cast<unsigned long long>(status.st_size) <= host::MaxTextFileSize) {
        char block[65536];
        ssize_t count = 0;
        while (text.size() <= host::MaxTextFileSize && (count = read(descriptor, block, sizeof block)) > 0) {
            text.append(block, static_cast<size_t>(count));
        }
        if (count < 0 || text.size() > host::MaxTextFileSize) text.clear();  // unreadable, or grew meanwhile
    }
    close(descriptor);
    for (size_t start = 0; start < text.size();) {
        const size_t end = text.find('\n', start);
        lines.push_back(text.substr(start, end == std::string::npos ? std::string::npos : end - start));
        start = end == std::string::npos ? text.size() : end + 1;
    }
    return lines;
}

std::string inttostr(long long value) {
    return std::to_string(value);
}
