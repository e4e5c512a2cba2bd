// Linked only into a module that carries libcrypto inside it (SIGNING_STATIC_CRYPTO), whose copy of
// the library nothing outside the module can reach: its default library context is the module's
// own.
//
// libcrypto reads a configuration file when it starts (OPENSSL_CONF, else the system's openssl.cnf)
// and lets it choose providers and default properties: a FIPS configuration there would leave the
// module's digests to a provider that refuses MD5 and SHA-1, or, where the FIPS provider is missing,
// to none. That file belongs to the host's libcrypto. The module's copy starts without it, before
// anything else in the module uses libcrypto, and keeps the built-in default provider.
#include <openssl/crypto.h>

namespace {

__attribute__((constructor(101))) void StartWithoutConfigurationFile() {
    OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG, nullptr);
}

}  // namespace
