// The session-file loader of the reference host.
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "HostSession.h"

namespace {

using nlohmann::json;

// A setting's value as text: strings as they are, numbers and booleans as JSON writes them.
std::string TextOf(const json& value, const std::string& where) {
    if (value.is_string()) return value.get<std::string>();
    if (value.is_number() || value.is_boolean()) return value.dump();
    throw std::runtime_error(where + " must be a string");
}

const json& Member(const json& object, const char* name, json::value_t type, const std::string& where) {
    static const json kEmptyObject = json::object(), kEmptyArray = json::array();
    if (!object.contains(name)) return type == json::value_t::array ? kEmptyArray : kEmptyObject;
    const json& member = object.at(name);
    if (member.type() != type) {
        throw std::runtime_error(where + "." + name + " must be " +
                                 (type == json::value_t::array ? "an array" : "an object"));
    }
    return member;
}

void ReadEntries(const json& object, std::map<std::string, std::string>& entries, const std::string& where) {
    for (const auto& item : object.items()) entries[item.key()] = TextOf(item.value(), where + "." + item.key());
}

}  // namespace

namespace host {

std::unique_ptr<session_t> LoadSessionFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw std::runtime_error("cannot read session file " + path);
    json document;
    try {
        document = json::parse(file);
    } catch (const json::exception& e) {
        throw std::runtime_error("session file " + path + " is not valid JSON: " + e.what());
    }
    if (!document.is_object()) throw std::runtime_error("session file " + path + " must hold a JSON object");

    std::unique_ptr<session_t> session(new session_t());
    session->variables["SESSION_DIR"] =
        std::filesystem::absolute(std::filesystem::path(path)).parent_path().lexically_normal().string();
    ReadEntries(Member(document, "variables", json::value_t::object, "session"), session->variables, "variables");
    for (const auto& item : Member(document, "environments", json::value_t::object, "session").items()) {
        const std::string where = "environments." + item.key();
        if (!item.value().is_object()) throw std::runtime_error(where + " must be an object");
        ReadEntries(item.value(), session->environments[item.key()].entries, where);
    }
    const json& products = Member(document, "products", json::value_t::array, "session");
    for (size_t p = 0; p < products.size(); ++p) {
        const std::string where = "products[" + std::to_string(p) + "]";
        if (!products[p].is_object()) throw std::runtime_error(where + " must be an object");
        HostProduct& product = session->AddProduct();
        ReadEntries(Member(products[p], "environment", json::value_t::object, where), product.Settings().entries,
                    where + ".environment");
        const json& components = Member(products[p], "components", json::value_t::array, where);
        for (size_t c = 0; c < components.size(); ++c) {
            const std::string at = where + ".components[" + std::to_string(c) + "]";
            const json& item = components[c];
            if (!item.is_object()) throw std::runtime_error(at + " must be an object");
            auto field = [&](const char* name) {
                return item.contains(name) ? TextOf(item.at(name), at + "." + name) : "";
            };
            HostComponent& component = product.AddComponent(field("id"), field("folder"), field("file"), field("type"));
            ReadEntries(Member(item, "environment", json::value_t::object, at), component.Settings().entries,
                        at + ".environment");
        }
    }
    // Entries that name an environment of the session refer to it.
    auto resolve = [&](Environment* settings) {
        for (auto& entry : settings->entries) {
            const auto named = session->environments.find(entry.second);
            if (named != session->environments.end()) entry.second = named->second.Reference();
        }
    };
    for (Product* product : session->Products()) {
        resolve(product->environment());
        for (Component* component : product->components()) resolve(component->environment());
    }
    return session;
}

}  // namespace host
