#include "KeyDiagnosis.h"

#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

#include "Base.h"
#include "Base64.h"
#include "Exceptions.h"
#include "RpmReport.h"

namespace {

// What a walk over the key block's packets found. The walk only describes the block for a hint;
// whether the key is usable is the verifier's own answer.
struct KeyBlock {
    bool secret = false;
    bool newFormat = false;
    bool signingSubkey = false;
    int primaryAlgorithm = -1;
    bool hasSignature = false;
    bool notKey = false;  // the first packet is not a key
    std::string issuer;   // of the first signature packet that names one
};

const unsigned int kLargestKeyFile = 1024 * 1024;

std::string AlgorithmName(int id) {
    switch (id) {
        case 16: return "Elgamal";
        case 17: return "DSA";
        case 18: return "ECDH";
        case 19: return "ECDSA";
        case 22: return "EdDSA";
        case 27: return "Ed25519";
        case 28: return "Ed448";
        default: return "algorithm " + std::to_string(id);
    }
}

// The bytes of the key block: the file itself, or the Base64 body of its armor (of whatever kind).
std::vector<unsigned char> BlockBytes(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::string data;
    data.resize(kLargestKeyFile);
    file.read(&data[0], kLargestKeyFile);
    data.resize(static_cast<size_t>(file.gcount()));
    if (!data.empty() && (static_cast<unsigned char>(data[0]) & 0x80) != 0) return {data.begin(), data.end()};
    const size_t begin = data.find("-----BEGIN PGP ");
    size_t body = begin == std::string::npos ? begin : data.find("\n\n", begin);
    if (body == std::string::npos) body = begin == std::string::npos ? begin : data.find("\r\n\r\n", begin);
    if (body == std::string::npos) return {};
    std::string text;
    for (size_t at = data.find_first_not_of("\r\n", body); at < data.size();) {
        const size_t end = std::min(data.find('\n', at), data.size());
        const std::string line = data.substr(at, end - at);
        if (line.empty() || line[0] == '=' || line[0] == '-') break;
        text += line.back() == '\r' ? line.substr(0, line.size() - 1) : line;
        at = end + 1;
    }
    unsigned int length = 0;
    std::unique_ptr<char[]> decoded(Base64::Decode(text.data(), static_cast<unsigned int>(text.size()), length));
    if (!decoded) return {};
    return {decoded.get(), decoded.get() + length};
}

// Reads the hashed and unhashed subpackets of a version 4 signature body: key flags (27) and the
// issuer (16).
void ReadSubpackets(const std::vector<unsigned char>& body, KeyBlock& block) {
    size_t at = 4;
    for (int area = 0; area < 2 && at + 2 <= body.size(); ++area) {
        const size_t end = std::min(at + 2 + (size_t(body[at]) << 8 | body[at + 1]), body.size());
        for (at += 2; at < end;) {
            size_t length = body[at], header = 1;
            if (length >= 192 && length < 255 && at + 1 < end)
                length = ((length - 192) << 8) + body[at + 1] + 192, header = 2;
            else if (length == 255 && at + 4 < end)
                length =
                    size_t(body[at + 1]) << 24 | size_t(body[at + 2]) << 16 | size_t(body[at + 3]) << 8 | body[at + 4],
                header = 5;
            if (length == 0 || at + header + length > end) break;
            const unsigned char type = body[at + header] & 0x7F;
            const unsigned char* value = &body[at + header + 1];
            if (type == 27 && length > 1 && body[1] == 0x18 && (value[0] & 0x02) != 0) block.signingSubkey = true;
            if (type == 16 && length == 9 && block.issuer.empty())
                block.issuer = Base::DumpBufferToString(value, 8, true);
            at += header + length;
        }
        at = end;
    }
}

KeyBlock Describe(const std::string& path) {
    KeyBlock block;
    const std::vector<unsigned char> data = BlockBytes(path);
    block.notKey = data.empty() || (data[0] & 0x80) == 0;
    for (size_t at = 0; at < data.size();) {
        const unsigned char octet = data[at];
        if ((octet & 0x80) == 0) break;
        size_t header = 0, length = 0;
        int tag = 0;
        if ((octet & 0x40) != 0) {
            block.newFormat = true;
            tag = octet & 0x3F;
            if (at + 1 >= data.size() || (data[at + 1] >= 224 && data[at + 1] != 255)) break;
            const unsigned char first = data[at + 1];
            if (first < 192) header = 2, length = first;
            else if (first < 224 && at + 2 < data.size())
                header = 3, length = ((first - 192) << 8) + data[at + 2] + 192;
            else if (at + 5 < data.size())
                header = 6, length = size_t(data[at + 2]) << 24 | size_t(data[at + 3]) << 16 |
                                     size_t(data[at + 4]) << 8 | data[at + 5];
            else break;
        } else {
            tag = (octet >> 2) & 0x0F;
            const int type = octet & 3;
            header = type == 3 ? 1 : 1 + (size_t(1) << type);
            if (at + header > data.size()) break;
            length = type == 3 ? data.size() - at - 1 : 0;
            for (size_t i = 1; type != 3 && i < header; ++i) length = length << 8 | data[at + i];
        }
        if (at + header + length > data.size()) break;
        if (at == 0 && tag != 5 && tag != 6) {
            block.notKey = true;
            break;
        }
        const std::vector<unsigned char> body(data.begin() + long(at + header),
                                              data.begin() + long(at + header + length));
        if (tag == 5 || tag == 7) block.secret = true;
        if (tag == 6 && !body.empty())
            block.primaryAlgorithm = body[0] == 4 && body.size() > 5 ? body[5] : body.size() > 7 ? body[7] : -1;
        if (tag == 2) {
            block.hasSignature = true;
            if (!body.empty() && body[0] == 4) ReadSubpackets(body, block);
        }
        at += header + length;
    }
    return block;
}

// What to give instead of a key block the verifier cannot read, and what the block is.
void Explain(const KeyBlock& block, KeyDiagnosis& diagnosis) {
    const std::string id = block.issuer.empty() ? "KEYID" : block.issuer;
    std::string kind;
    if (block.notKey) {
        kind = "the file holds no OpenPGP public key";
        diagnosis.hint = "give the publisher's public key as gpg --export --armor KEYID writes it";
    } else if (block.secret) {
        kind = "the file holds a secret key";
        diagnosis.hint = "give the public key: gpg --export --armor " + id;
    } else if (block.newFormat) {
        kind = "the key block uses the new OpenPGP packet format";
        diagnosis.hint =
            "export the key with GnuPG, which writes the format the verifier reads: gpg --export --armor " + id;
    } else if (block.primaryAlgorithm > 3) {
        kind = "the primary key is " + AlgorithmName(block.primaryAlgorithm) + ", not RSA";
        diagnosis.hint = "the verifier checks RSA signatures only: sign the packages with an RSA key and give that key";
    } else if (block.signingSubkey) {
        kind = "the key block holds a signing subkey";
        diagnosis.hint = "sign with the primary key (rpmsign --addsign --rpmv3 --define '_gpg_name " + id +
                         "!') and give the key without its signing subkey: gpg --export --armor --export-filter "
                         "drop-subkey='usage =~ s' " +
                         id;
    } else if (block.primaryAlgorithm >= 0 && !block.hasSignature) {
        kind = "the key block has no signature packet that names its key";
        diagnosis.hint = "export the key with its self-signature: gpg --export --armor " + id;
    }
    if (!kind.empty()) diagnosis.text = kind + " (" + diagnosis.text + ")";
}

}  // namespace

KeyDiagnosis DiagnoseKey(const std::string& path) {
    KeyDiagnosis diagnosis;
    try {
        const RpmKey key = rpm_read_key(path);
        diagnosis.usable = true;
        diagnosis.keyId = key.keyId;
        diagnosis.bits = key.bits;
        return diagnosis;
    } catch (const FileIoException& e) {
        diagnosis.reason = "unreadable-key";
        diagnosis.text = e.what();
        return diagnosis;
    } catch (const std::exception& e) {
        diagnosis.reason = "unsupported-key";
        diagnosis.text = e.what();
    }
    Explain(Describe(path), diagnosis);
    return diagnosis;
}
