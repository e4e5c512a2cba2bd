// Key files through the current policy's keyring: any bytes give keys or a DataFormatException
// (or another exception of the module), never a crash; every primary key it gives can verify (a
// subkey of an algorithm that cannot, an encryption subkey, is kept for what its signatures are).
#include <cstdint>
#include <cstdlib>
#include <stdexcept>

#include "OpenPgpKeyring.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    try {
        const OpenPgpKeyring keys = OpenPgpKeyring::Parse(data, size);
        if (keys.Keys().empty()) std::abort();
        for (const OpenPgpPublicKey& key : keys.Keys()) {
            if (key.keyId.size() != 16 || (!key.subkey && !key.key) || keys.Find(key.keyId) == nullptr) std::abort();
        }
    } catch (const std::runtime_error&) {
    }
    return 0;
}
