// The keyring of the current policy as a table (tests/data/vectors/keyring.vec): key files read by
// OpenPgpKeyring, their blocks split, signature packets read and checked against them. The inputs are
// the fixture key files, or their packets changed here (decoded, edited and written again), or hex.
#include <openssl/evp.h>

#include <sstream>

#include "../crypto/Vectors.h"
#include "OpenPgpKeyring.h"
#include "PgpWriter.h"

namespace {

// A packet as read from a fixture: its tag, its body, and the header it came with, written again in
// form ("old1", "old2", "old4", "open", "new1", "new2", "new5", "partial") once form is set.
struct Packet {
    unsigned char tag;
    Bytes body, header;
    std::string form;
};

std::string FileText(const std::string& name) {
    std::ifstream file(std::string(SIGNING_TEST_DATA) + "/" + name, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

// The bytes of every armored block of text (decoded here with OpenSSL's Base64), or text itself.
Bytes Dearmor(const std::string& text) {
    if (text.rfind("-----BEGIN", 0) != 0) return Bytes(text.begin(), text.end());
    std::istringstream in(text);
    std::string line, base64;
    Bytes all;
    for (bool body = false; std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.rfind("-----", 0) == 0 && !base64.empty()) {  // the END line
            Bytes bytes(base64.size() / 4 * 3);
            EVP_DecodeBlock(bytes.data(), reinterpret_cast<const unsigned char*>(base64.data()),
                            static_cast<int>(base64.size()));
            bytes.resize(bytes.size() - static_cast<size_t>(std::count(base64.end() - 2, base64.end(), '=')));
            all.insert(all.end(), bytes.begin(), bytes.end());
            base64.clear();
        }
        if (line.rfind("-----", 0) == 0) body = false;
        else if (body && line[0] != '=') base64 += line;
        else body = body || line.empty();
    }
    return all;
}

// The packets of data as the test reads them; what is no packet ends them.
std::vector<Packet> Packets(const Bytes& data) {
    std::vector<Packet> packets;
    for (size_t at = 0; at + 1 < data.size();) {
        const unsigned char first = data[at], second = data[at + 1];
        const bool fresh = (first & 0x40) != 0;
        size_t header = 1 + (1u << (first & 3)), from = 1, length = 0;  // old format: 1, 2 or 4 octets
        if (fresh) header = second < 192 ? 2 : second < 224 ? 3 : 6, from = header == 6 ? 2 : header;
        if (header > data.size() - at) break;
        for (size_t i = from; i < header; ++i) length = (length << 8) | data[at + i];
        if (fresh && header < 6) length = header == 2 ? second : ((second - 192u) << 8) + data[at + 2] + 192;
        length = std::min(length, data.size() - at - header);
        const auto start = data.begin() + static_cast<long>(at);
        packets.push_back({static_cast<unsigned char>(fresh ? first & 0x3F : (first >> 2) & 0x0F),
                           Bytes(start + static_cast<long>(header), start + static_cast<long>(header + length)),
                           Bytes(start, start + static_cast<long>(header)), ""});
        at += header + length;
    }
    return packets;
}

Bytes Write(const Packet& p) {
    const size_t n = p.body.size();
    const unsigned char old = static_cast<unsigned char>(0x80 | p.tag << 2), fresh = 0xC0 | p.tag;
    const std::map<std::string, Bytes> headers = {
        {"", p.header},
        {"old1", {old, static_cast<unsigned char>(n)}},
        {"old2", pgp::Concat({{static_cast<unsigned char>(old | 1)}, pgp::Be(n, 2)})},
        {"old4", pgp::Concat({{static_cast<unsigned char>(old | 2)}, pgp::Be(n, 4)})},
        {"open", {static_cast<unsigned char>(old | 3)}},
        {"new1", {fresh, static_cast<unsigned char>(n)}},
        {"new2", {fresh, static_cast<unsigned char>(192 + ((n - 192) >> 8)), static_cast<unsigned char>(n - 192)}},
        {"new5", pgp::Concat({{fresh, 255}, pgp::Be(n, 4)})}};
    if (p.form == "partial") {  // a first part of one octet, then the rest
        return pgp::Concat({{fresh, 0xE0, p.body[0], 255}, pgp::Be(n - 1, 4), Bytes(p.body.begin() + 1, p.body.end())});
    }
    return pgp::Concat({headers.at(p.form), p.body});
}

Bytes Binary(const std::vector<Packet>& packets) {
    Bytes all;
    for (const Packet& packet : packets) all = pgp::Concat({all, Write(packet)});
    return all;
}

std::map<std::string, std::string> names;  // set by "name | NAME | HEX", read as "$NAME"

// One part of an input: "hex HEX", "$NAME", "text TEXT", or a fixture under tests/data, with edits after
// ": " (see keyring.vec). Without edits a fixture is its file as it is, unless binary is asked for.
std::string Part(const std::string& part, bool binary) {
    if (part.rfind("text ", 0) == 0) return part.substr(5);
    const size_t colon = part.find(": ");
    std::string source = part.substr(0, colon);
    if (source[0] == '$') source = "hex " + names.at(source.substr(1));
    const bool hex = source.rfind("hex", 0) == 0;
    const std::string text = hex ? Text(Unhex(source.substr(3))) : FileText(source);
    if (colon == std::string::npos && (hex || !binary)) return text;
    std::vector<Packet> packets = Packets(Dearmor(text));
    std::string form = binary || hex || source.find(".asc") == std::string::npos ? "binary" : "armor", edit;
    size_t cut = 0;
    std::istringstream edits(colon == std::string::npos ? "" : part.substr(colon + 2));
    while (std::getline(edits >> std::ws, edit, ',')) {
        std::istringstream words(edit);
        std::string name, value;
        size_t k = 0, n = 0;
        words >> name;
        const std::string known = " cut append binary blocks drop only copy tag header flip set ";
        if (known.find(" " + name + " ") == std::string::npos && name.find("armor") == std::string::npos)
            throw std::invalid_argument("no edit " + name);
        if (name == "cut") words >> cut;
        if (name == "append")
            words >> value, packets = Packets(pgp::Concat({Binary(packets), Dearmor(FileText(value))}));
        if (name == "binary" || name.find("armor") != std::string::npos || name == "blocks") form = name;
        if (!(words >> k)) continue;
        Packet& p = packets.at(k);
        if (name == "drop") packets.erase(packets.begin() + static_cast<long>(k));
        if (name == "only") packets = {Packet(p)};
        if (name == "copy") packets.push_back(Packet(p));
        if (name == "tag" && words >> n)
            p.tag = static_cast<unsigned char>(n), p.form = p.form.empty() ? "old4" : p.form;
        if (name == "header") words >> p.form;
        if (name == "flip" && words >> n) p.body.at(n) ^= 0x01;
        if (name == "set" && words >> n >> value)
            p.body.at(n) = static_cast<unsigned char>(std::stoi(value, nullptr, 16));
    }
    Bytes bytes = Binary(packets);
    bytes.resize(bytes.size() - cut);
    if (form == "binary") return Text(bytes);
    if (form == "blocks") {  // one armored block per primary key
        std::string blocks;
        for (size_t first = 0, next = 1; first < packets.size(); first = next++) {
            while (next < packets.size() && packets[next].tag != 6) ++next;
            blocks += pgp::Armor(
                Binary({packets.begin() + static_cast<long>(first), packets.begin() + static_cast<long>(next)}));
        }
        return blocks;
    }
    std::string armor = pgp::Armor(bytes, form == "crlf-armor" ? "\r\n" : "\n");
    const size_t checksum = armor.rfind("\n=") + 1, end = armor.find("-----END");
    if (form == "unchecked-armor") armor.erase(checksum, end - checksum);
    if (form == "bad-checksum-armor") armor[checksum + 1] = armor[checksum + 1] == 'A' ? 'B' : 'A';
    if (form == "endless-armor") armor.erase(end);
    if (form == "tight-armor") armor.erase(armor.find("\n\n"), 1);
    return armor;
}

// An input: its parts, separated by " + ", one after the other.
Bytes Input(const std::string& field, bool binary = false) {
    std::string all;
    for (size_t at = 0, plus = 0; at <= field.size(); at = plus + 3) {
        plus = std::min(field.find(" + ", at), field.size());
        all += Part(field.substr(at, plus - at), binary);
    }
    return Bytes(all.begin(), all.end());
}

OpenPgpKeyring Keyring(const std::string& field) {
    const Bytes data = Input(field);
    return OpenPgpKeyring::Parse(data.data(), data.size());
}

// "pub ID ALG/BITS" or "sub ID ALG/BITS of PRIMARY".
std::string Describe(const OpenPgpPublicKey& key) {
    return std::string(key.subkey ? "sub " : "pub ") + key.keyId + " " + std::to_string(key.algorithm) + "/" +
           std::to_string(key.bits) + (key.subkey || key.primaryId != key.keyId ? " of " + key.primaryId : "") +
           (key.key ? "" : " without a key");
}

const Operations kOperations = {
    {"name",
     [](const Args& a) {
         names[a[0]] = a[1];
         return "";
     }},
    {"keys",
     [](const Args& a) {
         const OpenPgpKeyring keys = Keyring(a[0]);
         std::string text;
         for (const OpenPgpPublicKey& key : keys.Keys()) text += (text.empty() ? "" : "; ") + Describe(key);
         for (const std::string& refusal : keys.Refused()) text += "; refused " + refusal;
         return text;
     }},
    {"find",
     [](const Args& a) {
         const OpenPgpKeyring keys = Keyring(a[0]);
         const OpenPgpPublicKey* key = keys.Find(a[1]);
         return key != nullptr ? Describe(*key) : "-";
     }},
    {"split",
     [](const Args& a) {
         const Bytes data = Input(a[0]);
         std::string sizes;
         for (const Bytes& key : OpenPgpKeyring::SplitKeys(data.data(), data.size()))
             sizes += (sizes.empty() ? "" : " ") + std::to_string(key.size());
         return sizes;
     }},
    {"sig",
     [](const Args& a) {
         const Bytes data = Input(a[0], true);
         const OpenPgpSignature s = OpenPgpSignature::Parse(data.data(), data.size());
         const unsigned char type = static_cast<unsigned char>(s.type);
         return "v" + std::to_string(s.version) + " t" + Hex(&type, 1) + " a" + std::to_string(s.publicKeyAlgorithm) +
                " h" + std::to_string(s.hashAlgorithm) + " issuer " + (s.issuer.empty() ? "-" : s.issuer) + " left " +
                Hex(s.left16, 2) + " trailer " + Hex(s.trailer.data(), s.trailer.size()) + " value " +
                std::to_string(s.value.size()) + (s.flaw.empty() ? "" : "; " + s.flaw);
     }},
    {"verify", [](const Args& a) {
         const OpenPgpKeyring keys = Keyring(a[0]);
         const Bytes data = Input(a[1], true);
         const OpenPgpSignature signature = OpenPgpSignature::Parse(data.data(), data.size());
         const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> signed_(EVP_MD_CTX_new(), EVP_MD_CTX_free);
         const std::string text = a[2].rfind("file ", 0) == 0 ? FileText(a[2].substr(5)) : a[2];
         EVP_DigestInit_ex(signed_.get(), pgp::MdOf(static_cast<int>(signature.hashAlgorithm)), nullptr);
         EVP_DigestUpdate(signed_.get(), signature.salt.data(), signature.salt.size());
         EVP_DigestUpdate(signed_.get(), text.data(), text.size());
         std::string reason;
         const int64_t now = a.size() > 3 ? std::stoll(a[3]) : 1800000000;  // 2027-01-15 unless given
         const SignatureVerdict verdict = VerifyOpenPgpSignature(signature, signed_.get(), keys, reason, now);
         const char* const verdicts[] = {"Ok", "NoKey", "Bad", "NotTrusted"};
         return verdicts[static_cast<int>(verdict)] + (reason.empty() ? "" : ": " + reason);
     }}};

}  // namespace

TEST(KeyringVectors, KeyFilesBlocksAndSignatures) {
    RunVectors("keyring.vec", kOperations);
}
