#pragma once

// The bucket arrays of hash maps. Maps that grew for a crowd keep their bucket arrays
// when the crowd leaves: a flood of 100,000 clients would leave a megabyte per map
// behind for good. After an erase, releaseSpareBuckets shrinks a map whose buckets
// outnumber its entries four to one; as each shrink halves the buckets at least, the
// cost stays amortised.
//
// Threading: none of its own; the caller holds whatever guards the map.

#include <cstddef>

namespace korvane::common {

template <class HashMap>
void releaseSpareBuckets(HashMap& map) {
    constexpr std::size_t smallestWorthShrinking = 64;
    if (map.bucket_count() > smallestWorthShrinking && map.bucket_count() / 4 > map.size()) {
        map.rehash(0);
    }
}

// A map's first insert asks for thirteen buckets. A map that mostly holds one entry
// (one client's patterns, a node of one client's pattern tree) asks for two instead
// when this runs before its first insert; it grows as usual from there.
template <class HashMap>
void startSmall(HashMap& map) {
    if (map.bucket_count() == 1) {
        map.reserve(1);
    }
}

}  // namespace korvane::common
