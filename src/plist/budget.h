#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace tessary::plist {

// How much a property list may make the decoder build. libplist has no limit
// of its own: it builds a binary list's shared objects once per reference, so
// a list of a few hundred bytes whose arrays refer to one child twice, a few
// dozen levels deep, becomes millions of nodes. Everything that reaches the
// decoder is checked against a budget first, by reading the bytes only, in
// time proportional to their size.
struct Budget {
    // Values and dictionary keys, each counted once per reference to it.
    std::size_t maxNodes = 0;
    // String and data bytes, each counted once per reference to it.
    std::size_t maxBytes = 0;
    // Containers within containers; the top-level value is at depth 1.
    std::size_t maxDepth = 0;
    // One string or data value.
    std::size_t maxItemBytes = 0;
};

// What a request may hold: a datagram, or the arguments inside one. The
// largest real request, a service definition, is a few hundred nodes at most
// six deep.
inline constexpr Budget kRequestBudget{
    .maxNodes = 16384,
    .maxBytes = std::size_t{1} << 20,
    .maxDepth = 32,
    .maxItemBytes = std::size_t{256} << 10,
};

// What a file the daemon reads may hold: its preferences, the app's
// definitions and information lists. They are root's files, but a damaged
// one must not be able to take the machine's memory either. A preferences
// file with a thousand created services holds some fifty thousand values.
inline constexpr Budget kFileBudget{
    .maxNodes = std::size_t{1} << 18,
    .maxBytes = std::size_t{16} << 20,
    .maxDepth = 256,
    .maxItemBytes = std::size_t{4} << 20,
};

// Why `bytes` would go over `budget` once built, or is no whole property
// list of the kind its first bytes claim; empty when it may be handed to
// libplist. Binary lists ("bplist00") are walked object by object, with every
// shared object's cost counted once per reference and reference loops
// refused; any other input is read as an XML document, which must be
// complete: one "plist" element, with only white space, comments and
// processing instructions after it.
std::string overBudget(std::string_view bytes, const Budget& budget);

}  // namespace tessary::plist
