#pragma once
// The reference host installer's session: variables, named environments, products and components,
// and a record of what the module logged and assigned. The host functions of host.h act on the
// session made current with host::SetCurrentSession (the host runs one session at a time).
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "host.h"

class Environment {
public:
    std::map<std::string, std::string> entries;
};

namespace host {

class HostComponent : public Component {
public:
    HostComponent(std::string id, std::string folder, std::string file, std::string type)
        : id_(std::move(id)), folder_(std::move(folder)), file_(std::move(file)), type_(std::move(type)) {}
    Environment& Settings() { return environment_; }

private:
    friend class ::Component;
    std::string id_, folder_, file_, type_;
    Environment environment_;
};

class HostProduct : public Product {
public:
    HostComponent& AddComponent(const std::string& id, const std::string& folder, const std::string& file,
                                const std::string& type);
    Environment& Settings() { return environment_; }

private:
    friend class ::Product;
    Environment environment_;
    std::vector<std::unique_ptr<HostComponent>> owned_;
    std::vector<Component*> components_;
};

}  // namespace host

struct session_t {
    std::map<std::string, std::string> variables;
    std::map<std::string, Environment> environments;
    // Every line the module logged, exactly as formatted, and every variable it set, in order.
    std::vector<std::string> log;
    std::vector<std::pair<std::string, std::string>> assignments;

    host::HostProduct& AddProduct();
    const std::vector<Product*>& Products() const { return productList_; }

private:
    std::vector<std::unique_ptr<host::HostProduct>> products_;
    std::vector<Product*> productList_;
};

namespace host {

// The session that the host functions act on; null for none.
void SetCurrentSession(session_t* session);
session_t* CurrentSession();
// Whether print_log also writes its lines to standard error (default: yes). A line that does not
// end with a line break gets one there.
void SetLogEcho(bool echo);

// Reads a session file (JSON): "variables", "environments" (name -> entries) and "products" (each
// with an "environment" and "components" of "id", "folder", "file", "type" and "environment").
// SESSION_DIR is preset to the file's folder. Throws std::runtime_error saying what is wrong.
std::unique_ptr<session_t> LoadSessionFile(const std::string& path);

}  // namespace host
