// The header checks the current policy shares with rpm (HeaderStore.h): headers written index entry
// by index entry, each row one check that passes or the first that fails, with its text.
#include <gtest/gtest.h>

#include "HeaderStore.h"
#include "RpmWriter.h"
#include "TestSupport.h"

namespace {

struct Raw {
    uint32_t tag, type;
    int64_t offset;
    uint32_t count;
};

// A region trailer: tag, binary, minus 16 times entries, count 16.
Bytes Trailer(uint32_t tag, int64_t entries) {
    return pgp::Concat({pgp::Be(tag, 4), pgp::Be(7, 4), pgp::Be(uint32_t(-16 * entries), 4), pgp::Be(16, 4)});
}

std::string Fault(const std::vector<Raw>& entries, const Bytes& store, uint32_t region, bool exact) {
    Bytes file =
        pgp::Concat({{0x8E, 0xAD, 0xE8, 0x01, 0, 0, 0, 0}, pgp::Be(entries.size(), 4), pgp::Be(store.size(), 4)});
    HeaderStructure header;
    header.indexCount = static_cast<uint32_t>(entries.size());
    header.dataSize = static_cast<uint32_t>(store.size());
    for (const Raw& e : entries) {
        file = pgp::Concat(
            {file, pgp::Be(e.tag, 4), pgp::Be(e.type, 4), pgp::Be(uint32_t(e.offset), 4), pgp::Be(e.count, 4)});
        header.entries.push_back(HeaderEntry{e.tag, e.type, uint32_t(e.offset), e.count});
    }
    TempFolder temp;
    const PackageFile package(temp.Write("h", rpm::Text(pgp::Concat({file, store}))));
    std::string fault;
    CheckHeaderAsRpm(HeaderStore(package, header), region, exact, fault);
    return fault;
}

Bytes Store(const std::string& text, const Bytes& tail = {}) {
    return pgp::Concat({rpm::BytesOf(text), tail});
}

}  // namespace

TEST(HeaderChecks, RegionAndEntriesAsRpmHoldsThem) {
    const Bytes name = Store(std::string("abc\0", 4), Trailer(62, 2));  // "abc", then the trailer at 4
    const std::string none;
    struct Row {
        const char* what;
        std::vector<Raw> entries;
        Bytes store;
        uint32_t region;
        bool exact;
        std::string fault;
    };
    const std::vector<Row> rows = {
        {"region and a string", {{62, 7, 4, 16}, {1000, 6, 0, 1}}, name, 62, false, none},
        {"no region: read without one", {{1000, 6, 0, 1}}, Store(std::string("abc\0", 4)), 62, false, none},
        {"no entries", {}, Store("x"), 62, false, "region: no tags"},
        {"region of another type",
         {{62, 6, 4, 16}, {1000, 6, 0, 1}},
         name,
         62,
         false,
         "region tag: BAD, tag 62 type 6 offset 4 count 16"},
        {"region count",
         {{62, 7, 4, 15}, {1000, 6, 0, 1}},
         name,
         62,
         false,
         "region tag: BAD, tag 62 type 7 offset 4 count 15"},
        {"trailer past the store",
         {{62, 7, 5, 16}, {1000, 6, 0, 1}},
         name,
         62,
         false,
         "region offset: BAD, tag 62 type 7 offset 5 count 16"},
        {"negative region offset",
         {{62, 7, -16, 16}, {1000, 6, 0, 1}},
         name,
         62,
         false,
         "region offset: BAD, tag 62 type 7 offset -16 count 16"},
        {"trailer of another tag",
         {{62, 7, 4, 16}, {1000, 6, 0, 1}},
         Store(std::string("abc\0", 4), Trailer(63, 2)),
         62,
         false,
         "region trailer: BAD, tag 63 type 7 offset 32 count 16"},
        {"an image trailer in the signature region",
         {{62, 7, 4, 16}, {1000, 6, 0, 1}},
         Store(std::string("abc\0", 4), Trailer(61, 2)),
         62,
         false,
         none},
        {"trailer over more entries than there are",
         {{62, 7, 4, 16}, {1000, 6, 0, 1}},
         Store(std::string("abc\0", 4), Trailer(62, 3)),
         62,
         false,
         "region 62 size: BAD, ril 3 il 2 rdl 20 dl 20"},
        {"trailer offset not of whole entries",
         {{62, 7, 4, 16}, {1000, 6, 0, 1}},
         Store(std::string("abc\0", 4),
               pgp::Concat({pgp::Be(62, 4), pgp::Be(7, 4), pgp::Be(uint32_t(-20), 4), pgp::Be(16, 4)})),
         62,
         false,
         "region 62 size: BAD, ril 1 il 2 rdl 20 dl 20"},
        {"main header region short of the index",
         {{63, 7, 4, 16}, {1000, 6, 0, 1}},
         Store(std::string("abc\0", 4), Trailer(63, 1)),
         63,
         true,
         "region 63: tag number mismatch il 2 ril 1 dl 20 rdl 20"},
        {"main header region short of the store",
         {{63, 7, 4, 16}, {1000, 6, 0, 1}},
         Store(std::string("abc\0", 4), pgp::Concat({Trailer(63, 2), {0}})),
         63,
         true,
         "region 63: tag number mismatch il 2 ril 2 dl 21 rdl 20"},
        {"tag below 100",
         {{99, 6, 0, 1}},
         Store(std::string("a\0", 2)),
         62,
         false,
         "tag[0]: BAD, tag 99 type 6 offset 0 count 1"},
        {"type 0", {{1000, 0, 0, 1}}, Store("ab"), 62, false, "tag[0]: BAD, tag 1000 type 0 offset 0 count 1"},
        {"type 10", {{1000, 10, 0, 1}}, Store("ab"), 62, false, "tag[0]: BAD, tag 1000 type 10 offset 0 count 1"},
        {"count 0", {{1000, 7, 0, 0}}, Store("ab"), 62, false, "tag[0]: BAD, tag 1000 type 7 offset 0 count 0"},
        {"count past the store",
         {{1000, 7, 0, 3}},
         Store("ab"),
         62,
         false,
         "tag[0]: BAD, tag 1000 type 7 offset 0 count 3"},
        {"binary to the end", {{1000, 7, 0, 2}}, Store("ab"), 62, false, none},
        {"int32 misaligned",
         {{1000, 4, 2, 1}},
         Store("abcdef"),
         62,
         false,
         "tag[0]: BAD, tag 1000 type 4 offset 2 count 1"},
        {"int16 aligned", {{1000, 3, 2, 1}}, Store("abcd"), 62, false, none},
        {"int64 past the store",
         {{1000, 5, 0, 1}},
         Store("abcdefg"),
         62,
         false,
         "tag[0]: BAD, tag 1000 type 5 offset 0 count 1"},
        {"string of two",
         {{1000, 6, 0, 2}},
         Store(std::string("a\0b\0", 4)),
         62,
         false,
         "tag[0]: BAD, tag 1000 type 6 offset 0 count 2"},
        {"string not terminated",
         {{1000, 6, 0, 1}},
         Store("abc"),
         62,
         false,
         "tag[0]: BAD, tag 1000 type 6 offset 0 count 1"},
        {"string array of three in two",
         {{1000, 8, 0, 3}},
         Store(std::string("a\0b\0c", 5)),
         62,
         false,
         "tag[0]: BAD, tag 1000 type 8 offset 0 count 3"},
        {"offset past the store",
         {{1000, 7, 3, 1}},
         Store("ab"),
         62,
         false,
         "tag[0]: BAD, tag 1000 type 7 offset 3 count 1"},
        {"data going back",
         {{1000, 7, 0, 2}, {1001, 7, 1, 1}},
         Store("ab"),
         62,
         false,
         "tag[1]: BAD, tag 1001 type 7 offset 1 count 1"},
        {"entries out of order",
         {{1001, 7, 1, 1}, {1000, 7, 0, 1}},
         Store("ab"),
         62,
         false,
         "tag[1]: BAD, tag 1000 type 7 offset 0 count 1"},
        {"data over the trailer",
         {{62, 7, 4, 16}, {1000, 7, 0, 5}},
         name,
         62,
         false,
         "tag[0]: BAD, tag 1000 type 7 offset 0 count 5"},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(Fault(row.entries, row.store, row.region, row.exact), row.fault) << row.what;
    }
}
