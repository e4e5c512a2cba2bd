#include "SigningPolicy.h"

bool ParseSigningPolicy(const std::string& name, SigningPolicy& policy) {
    if (name == "classic") {
        policy = SigningPolicy::Classic;
    } else if (name == "current") {
        policy = SigningPolicy::Current;
    } else {
        return false;
    }
    return true;
}
