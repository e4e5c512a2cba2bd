// The host functions that the module imports, over the reference host's session.
#include <sys/stat.h>

#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <vector>

#include "HostSession.h"

namespace {

session_t* current = nullptr;
bool logEcho = true;
const std::vector<Product*> kNoProducts;

}  // namespace

namespace host {

void SetCurrentSession(session_t* session) {
    current = session;
}

session_t* CurrentSession() {
    return current;
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

const std::vector<Product*>& TSD::products() {
    return current != nullptr ? current->Products() : kNoProducts;
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
    if (current != nullptr) current->log.push_back(line);
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
    if (current == nullptr) return nullptr;
    const auto found = current->environments.find(text);
    return found == current->environments.end() ? nullptr : &found->second;
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
        expanded += text.substr(position, start - position) + env_get_string(session, text.substr(start + 2, end - start - 2).c_str());
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

std::vector<std::string> readContentOfTextFile(const std::string& path) {
    std::vector<std::string> lines;
    std::ifstream file(path, std::ios::binary);
    for (std::string line; std::getline(file, line);) lines.push_back(line);
    return lines;
}

std::string inttostr(long long value) {
    return std::to_string(value);
}
