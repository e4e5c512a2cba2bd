#include "slre.h"

#include <bitset>
#include <cctype>
#include <cstring>
#include <functional>
#include <vector>

namespace {

const int kUnbounded = -1;
const long kMaxSteps = 2000000;  // backtracking budget of one call
const int kMaxDepth = 2000;      // nesting of groups and repetitions of groups

struct Node;
using Sequence = std::vector<Node>;

struct Node {
    enum Kind { Set, Begin, End, Group } kind = Set;
    std::bitset<256> set;                // Set: the characters it accepts
    std::vector<Sequence> alternatives;  // Group
    int capture = -1;                    // Group: index into caps, -1 for the top level
    int min = 1;
    int max = 1;  // kUnbounded for no limit
    bool lazy = false;
};

class Parser {
public:
    Parser(const char* text, bool ignoreCase) : text_(text), ignoreCase_(ignoreCase) {}

    // Parses the whole expression into the top-level alternatives; returns 0 or an error code.
    int Parse(std::vector<Sequence>& alternatives) {
        int error = ParseAlternatives(alternatives, 0);
        if (error == 0 && text_[pos_] != '\0') error = SLRE_UNBALANCED_BRACKETS;  // a stray ")"
        return error;
    }
    int Groups() const { return groups_; }

private:
    int ParseAlternatives(std::vector<Sequence>& alternatives, int depth) {
        if (depth > kMaxDepth) return SLRE_TOO_COMPLEX;
        alternatives.emplace_back();
        while (text_[pos_] != '\0' && text_[pos_] != ')') {
            if (text_[pos_] == '|') {
                ++pos_;
                alternatives.emplace_back();
                continue;
            }
            int error = ParseAtom(alternatives.back(), depth);
            if (error != 0) return error;
        }
        return 0;
    }

    int ParseAtom(Sequence& sequence, int depth) {
        Node node;
        const char c = text_[pos_++];
        switch (c) {
            case '*':
            case '+':
            case '?': return SLRE_UNEXPECTED_QUANTIFIER;
            case '^': node.kind = Node::Begin; break;
            case '$': node.kind = Node::End; break;
            case '.': node.set.set(); break;
            case '[': {
                int error = ParseSet(node.set);
                if (error != 0) return error;
                break;
            }
            case '(': {
                node.kind = Node::Group;
                node.capture = groups_++;
                int error = ParseAlternatives(node.alternatives, depth + 1);
                if (error != 0) return error;
                if (text_[pos_] != ')') return SLRE_UNBALANCED_BRACKETS;
                ++pos_;
                break;
            }
            case '\\': {
                int error = ParseEscape(node.set);
                if (error != 0) return error;
                break;
            }
            default: AddChar(node.set, static_cast<unsigned char>(c));
        }
        if (std::strchr("*+?", text_[pos_]) != nullptr && text_[pos_] != '\0') {
            if (node.kind == Node::Begin || node.kind == Node::End) return SLRE_UNEXPECTED_QUANTIFIER;
            const char quantifier = text_[pos_++];
            node.min = quantifier == '+' ? 1 : 0;
            node.max = quantifier == '?' ? 1 : kUnbounded;
            if (text_[pos_] == '?') {
                node.lazy = true;
                ++pos_;
            }
            if (std::strchr("*+", text_[pos_]) != nullptr && text_[pos_] != '\0') return SLRE_UNEXPECTED_QUANTIFIER;
        }
        sequence.push_back(node);
        return 0;
    }

    // After "[": members up to "]"; a "^" first negates, "a-z" is a range, "-" first or last is itself.
    int ParseSet(std::bitset<256>& set) {
        bool negate = false;
        if (text_[pos_] == '^') {
            negate = true;
            ++pos_;
        }
        bool first = true;
        while (text_[pos_] != ']' || first) {
            if (text_[pos_] == '\0') return SLRE_INVALID_CHARACTER_SET;
            first = false;
            std::bitset<256> member;
            int low = -1;
            if (text_[pos_] == '\\') {
                ++pos_;
                int error = ParseEscape(member);
                if (error != 0) return error;
                if (member.count() == 1 || (ignoreCase_ && member.count() == 2)) low = FirstOf(member);
            } else {
                low = static_cast<unsigned char>(text_[pos_++]);
                member.set(static_cast<size_t>(low));
            }
            if (text_[pos_] == '-' && text_[pos_ + 1] != ']' && text_[pos_ + 1] != '\0' && low >= 0) {
                ++pos_;
                int high;
                if (text_[pos_] == '\\') {
                    ++pos_;
                    std::bitset<256> end;
                    int error = ParseEscape(end);
                    if (error != 0) return error;
                    high = FirstOf(end);
                } else {
                    high = static_cast<unsigned char>(text_[pos_++]);
                }
                if (high < low) return SLRE_INVALID_CHARACTER_SET;
                for (int ch = low; ch <= high; ++ch) AddChar(member, static_cast<unsigned char>(ch));
            }
            set |= member;
        }
        ++pos_;  // the closing "]"
        if (negate) set.flip();
        return 0;
    }

    // After a backslash: a class, a control character, a hexadecimal byte or a literal.
    int ParseEscape(std::bitset<256>& set) {
        const char c = text_[pos_];
        if (c == '\0') return SLRE_INVALID_METACHARACTER;
        ++pos_;
        switch (c) {
            case 'd':
            case 'D':
            case 's':
            case 'S':
            case 'w':
            case 'W': {
                std::bitset<256> members;
                for (int ch = 0; ch < 256; ++ch) {
                    const bool in = (c == 'd' || c == 'D')   ? std::isdigit(ch) != 0
                                    : (c == 's' || c == 'S') ? std::isspace(ch) != 0
                                                             : (std::isalnum(ch) != 0 || ch == '_');
                    if (in && ch < 128) members.set(static_cast<size_t>(ch));
                }
                if (std::isupper(static_cast<unsigned char>(c))) members.flip();
                set |= members;
                return 0;
            }
            case 'n': AddChar(set, '\n'); return 0;
            case 'r': AddChar(set, '\r'); return 0;
            case 't': AddChar(set, '\t'); return 0;
            case 'f': AddChar(set, '\f'); return 0;
            case 'v': AddChar(set, '\v'); return 0;
            case 'x': {
                int value = 0;
                for (int i = 0; i < 2; ++i) {
                    const char digit = text_[pos_];
                    if (!std::isxdigit(static_cast<unsigned char>(digit))) return SLRE_INVALID_METACHARACTER;
                    value =
                        value * 16 + (std::isdigit(static_cast<unsigned char>(digit)) ? digit - '0'
                                                                                      : std::tolower(digit) - 'a' + 10);
                    ++pos_;
                }
                AddChar(set, static_cast<unsigned char>(value));
                return 0;
            }
            default:
                if (std::isalnum(static_cast<unsigned char>(c))) return SLRE_INVALID_METACHARACTER;
                AddChar(set, static_cast<unsigned char>(c));
                return 0;
        }
    }

    void AddChar(std::bitset<256>& set, unsigned char c) const {
        set.set(c);
        if (ignoreCase_) {
            set.set(static_cast<unsigned char>(std::tolower(c)));
            set.set(static_cast<unsigned char>(std::toupper(c)));
        }
    }

    static int FirstOf(const std::bitset<256>& set) {
        for (int ch = 0; ch < 256; ++ch) {
            if (set.test(static_cast<size_t>(ch))) return ch;
        }
        return -1;
    }

    const char* text_;
    bool ignoreCase_;
    int pos_ = 0;
    int groups_ = 0;
};

using Continuation = std::function<bool(int)>;

class Matcher {
public:
    Matcher(const char* buf, int length, slre_cap* caps) : buf_(buf), length_(length), caps_(caps) {}

    bool TooComplex() const { return tooComplex_; }

    // Whether the sequence matches from pos onward with the rest of the expression (k) after it.
    bool MatchSequence(const Sequence& sequence, size_t index, int pos, const Continuation& k, int depth) {
        if (++steps_ > kMaxSteps || depth > kMaxDepth) {
            tooComplex_ = true;
            return false;
        }
        if (index == sequence.size()) return k(pos);
        const Node& node = sequence[index];
        const Continuation next = [&](int p) { return MatchSequence(sequence, index + 1, p, k, depth); };
        switch (node.kind) {
            case Node::Begin: return pos == 0 && next(pos);
            case Node::End: return pos == length_ && next(pos);
            case Node::Group: return MatchGroup(node, 0, pos, next, depth + 1);
            case Node::Set: break;
        }
        // A repeated single character needs no recursion per repetition: count the run first.
        int run = 0;
        while ((node.max == kUnbounded || run < node.max) && pos + run < length_ &&
               node.set.test(static_cast<unsigned char>(buf_[pos + run]))) {
            ++run;
        }
        if (run < node.min) return false;
        if (node.lazy) {
            for (int count = node.min; count <= run; ++count) {
                if (next(pos + count)) return true;
                if (tooComplex_) return false;
            }
        } else {
            for (int count = run; count >= node.min; --count) {
                if (next(pos + count)) return true;
                if (tooComplex_) return false;
            }
        }
        return false;
    }

    // count repetitions of the group have matched, the last ending at pos.
    bool MatchGroup(const Node& node, int count, int pos, const Continuation& k, int depth) {
        auto more = [&]() {
            if (node.max != kUnbounded && count >= node.max) return false;
            for (const Sequence& alternative : node.alternatives) {
                const Continuation afterOne = [&](int end) {
                    if (end == pos && count >= node.min) return false;  // an empty repetition goes nowhere
                    slre_cap saved = Capture(node.capture);
                    SetCapture(node.capture, pos, end);
                    if (MatchGroup(node, count + 1, end, k, depth + 1)) return true;
                    RestoreCapture(node.capture, saved);
                    return false;
                };
                if (MatchSequence(alternative, 0, pos, afterOne, depth + 1)) return true;
                if (tooComplex_) return false;
            }
            return false;
        };
        auto stop = [&]() { return count >= node.min && k(pos); };
        return node.lazy ? (stop() || (!tooComplex_ && more())) : (more() || (!tooComplex_ && stop()));
    }

private:
    slre_cap Capture(int index) const {
        if (caps_ == nullptr || index < 0) return slre_cap{nullptr, 0};
        return caps_[index];
    }
    void SetCapture(int index, int begin, int end) {
        if (caps_ != nullptr && index >= 0) caps_[index] = slre_cap{buf_ + begin, end - begin};
    }
    void RestoreCapture(int index, const slre_cap& saved) {
        if (caps_ != nullptr && index >= 0) caps_[index] = saved;
    }

    const char* buf_;
    int length_;
    slre_cap* caps_;
    long steps_ = 0;
    bool tooComplex_ = false;
};

}  // namespace

int slre_match(const char* regexp, const char* buf, int buf_len, struct slre_cap* caps, int num_caps, int flags) {
    if (regexp == nullptr || buf == nullptr || buf_len < 0) return SLRE_INTERNAL_ERROR;
    Parser parser(regexp, (flags & SLRE_IGNORE_CASE) != 0);
    Node top;
    top.kind = Node::Group;
    int error = parser.Parse(top.alternatives);
    if (error != 0) return error;
    if (caps != nullptr && parser.Groups() > num_caps) return SLRE_CAPS_ARRAY_TOO_SMALL;
    if (caps != nullptr) {
        for (int i = 0; i < parser.Groups(); ++i) caps[i] = slre_cap{nullptr, 0};
    }

    Matcher matcher(buf, buf_len, caps);
    for (int start = 0; start <= buf_len; ++start) {
        int end = -1;
        const Continuation record = [&](int pos) {
            end = pos;
            return true;
        };
        if (matcher.MatchGroup(top, 0, start, record, 0)) return end;
        if (matcher.TooComplex()) return SLRE_TOO_COMPLEX;
    }
    return SLRE_NO_MATCH;
}
