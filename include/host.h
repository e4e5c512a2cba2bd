#pragma once
// What the module imports from the host installer that loads it. The host defines every function
// and member function declared here; the module reaches host data only through them, never through
// a data layout of its own assumption, so its binary interface to the host stays this list.
//
// The names resolve when the host loads the module: they stay undefined in libsigning.so.
#include <string>
#include <vector>

// The host's installation session; opaque to the module.
struct session_t;

// A named set of entries (a product's or a component's own settings, or a shared environment that
// such an entry refers to); opaque to the module.
class Environment;

// A component of a product: one package that the user selected. The host's objects derive from
// this interface class; it holds no data of its own.
class Component {
public:
    std::string id() const;             // the component's identifier
    std::string packageFolder() const;  // the folder of its package; may contain host operands
    std::string packageFile() const;    // the package file name
    std::string type() const;           // the package type: "rpm" for RPM packages
    Environment* environment() const;   // the component's own settings

protected:
    Component() = default;
    ~Component() = default;
};

// A product of the session: its own settings and its components, in order.
class Product {
public:
    Environment* environment() const;
    const std::vector<Component*>& components() const;

protected:
    Product() = default;
    ~Product() = default;
};

// The product data of a session: its products, in order. The host's session derives from this
// interface class; it holds no data of its own.
class TSD {
public:
    const std::vector<Product*>& products() const;

protected:
    TSD() = default;
    ~TSD() = default;
};

// The product data of the session the host handed to the module; null when it has none.
TSD* session_get_tsd(session_t* session);

// Writes one log line, printf-style.
void print_log(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Session variables; an unset key reads as empty text.
std::string env_get_string(session_t* session, const char* key);
void env_set_string(session_t* session, const char* key, const char* value);
void env_set_string(session_t* session, const std::string& key, const std::string& value);

// An entry of a product's or component's environment; empty when unset.
std::string env_get_string_internal(Environment* map, const char* key);
// The environment that an entry names; null when there is none.
Environment* castStringToEnvPointer(const std::string& text);

// The text with the host's operands expanded.
std::string expand_operand(session_t* session, const char* text, bool flag);
std::string expand_operand(session_t* session, const std::string& text, bool flag);

// Nonzero when the file is present.
int file_exists(const std::string& path, bool flag);
// The lines of a text file (empty when it cannot be read).
std::vector<std::string> readContentOfTextFile(const std::string& path);
// Decimal text of a number.
std::string inttostr(long long value);
