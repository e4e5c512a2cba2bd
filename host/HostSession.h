#pragma once
// The reference host installer's session: variables, named environments, products and components,
// and a record of what the module assigned. The host functions of host.h act on the session the
// module passes them; nothing refers to a "current" session.
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "host.h"

// A set of entries. An entry of a product's or component's environment refers to another
// environment by that environment's Reference() text, which castStringToEnvPointer turns back into
// the environment while it lives (and into null once it is gone or for any other text).
class Environment {
public:
    Environment();
    Environment(const Environment& other);
    Environment& operator=(const Environment& other);
    ~Environment();

    std::map<std::string, std::string> entries;
    const std::string& Reference() const { return reference_; }

private:
    std::string reference_;
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

struct session_t : public TSD {
    std::map<std::string, std::string> variables;
    // Named environments; a product or component refers to one by its Reference().
    std::map<std::string, Environment> environments;
    // Every variable the module set, in order, and room for the log lines of the session's check
    // (host::SetLogRecord directs print_log there).
    std::vector<std::pair<std::string, std::string>> assignments;
    std::vector<std::string> log;

    host::HostProduct& AddProduct();
    const std::vector<Product*>& Products() const { return productList_; }

private:
    std::vector<std::unique_ptr<host::HostProduct>> products_;
    std::vector<Product*> productList_;
};

namespace host {

// Where print_log keeps every line, exactly as formatted (null: nowhere, the default).
void SetLogRecord(std::vector<std::string>* lines);
// Whether print_log also writes its lines to standard error (default: yes). A line that does not
// end with a line break gets one there.
void SetLogEcho(bool echo);
// The largest file readContentOfTextFile reads; larger files and files that are not regular read
// as no lines.
const unsigned long long MaxTextFileSize = 1024 * 1024;

// Reads a session file (JSON): "variables", "environments" (name -> entries) and "products" (each
// with an "environment" and "components" of "id", "folder", "file", "type" and "environment").
// SESSION_DIR is preset to the file's folder. An entry of a product's or component's environment
// whose value names one of "environments" refers to it. Throws std::runtime_error saying what is
// wrong.
std::unique_ptr<session_t> LoadSessionFile(const std::string& path);

}  // namespace host
