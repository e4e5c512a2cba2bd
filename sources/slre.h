#pragma once
// A small backtracking regular-expression matcher.
//
// Syntax: literals; "." any character; "^" and "$" anchors; "[...]" and "[^...]" sets with ranges;
// "(...)" capturing groups with "|" alternatives (also at the top level); the quantifiers "*", "+"
// and "?", greedy, or lazy when followed by "?"; escapes "\d \D \s \S \w \W", "\n \r \t \f \v",
// "\xHH" and a backslash before any punctuation for the character itself.
//
// slre_match searches buf for the first position at which regexp matches and returns the number of
// bytes from the start of buf to the end of that match, or a negative code below. caps, when not
// null, receives the last text each group captured (ptr null and len 0 for a group that took no
// part); it must have room for every group of the expression.

struct slre_cap {
    const char* ptr;
    int len;
};

enum {
    SLRE_IGNORE_CASE = 1,
};

enum {
    SLRE_NO_MATCH = -1,
    SLRE_UNEXPECTED_QUANTIFIER = -2,
    SLRE_UNBALANCED_BRACKETS = -3,
    SLRE_INTERNAL_ERROR = -4,
    SLRE_INVALID_CHARACTER_SET = -5,
    SLRE_INVALID_METACHARACTER = -6,
    SLRE_CAPS_ARRAY_TOO_SMALL = -7,
    SLRE_TOO_COMPLEX = -8,  // the search gave up: too much backtracking or nesting
};

int slre_match(const char* regexp, const char* buf, int buf_len, struct slre_cap* caps, int num_caps, int flags);
