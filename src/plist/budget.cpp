#include "plist/budget.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

namespace tessary::plist {

namespace {

constexpr std::string_view kBinaryMagic = "bplist00";
constexpr std::size_t kTrailer = 32;

std::uint64_t readBigEndian(std::string_view b, std::size_t at, std::size_t width) {
    std::uint64_t out = 0;
    for (std::size_t i = 0; i < width; ++i) {
        out = (out << 8) | static_cast<unsigned char>(b[at + i]);
    }
    return out;
}

std::uint64_t saturatingAdd(std::uint64_t a, std::uint64_t b) {
    return a > UINT64_MAX - b ? UINT64_MAX : a + b;
}

std::string moreThan(std::size_t limit, const char* what) {
    return "property list holds more than " + std::to_string(limit) + " " + what;
}

// Walks a binary list's object graph from its top object the way libplist
// reads it (object table, reference sizes, the count that follows a 0xF
// marker) and adds up what libplist would build for it. Each object is costed
// once and its cost reused for every further reference, so the walk is linear
// in the number of objects and references whatever they multiply to.
class BinaryWalk {
  public:
    BinaryWalk(std::string_view bytes, const Budget& budget) : b_(bytes), budget_(budget) {}

    std::string run() {
        if (b_.size() < kBinaryMagic.size() + kTrailer) {
            return "binary property list is too short";
        }
        const std::size_t trailer = b_.size() - kTrailer;
        offsetSize_ = static_cast<unsigned char>(b_[trailer + 6]);
        refSize_ = static_cast<unsigned char>(b_[trailer + 7]);
        const std::uint64_t objects = readBigEndian(b_, trailer + 8, 8);
        const std::uint64_t top = readBigEndian(b_, trailer + 16, 8);
        const std::uint64_t table = readBigEndian(b_, trailer + 24, 8);
        // libplist reads wider references by their last eight bytes; no
        // writer makes them, so they are refused rather than imitated.
        if (offsetSize_ == 0 || offsetSize_ > 8 || refSize_ == 0 || refSize_ > 8) {
            return "binary property list has references of an unsupported size";
        }
        if (table < kBinaryMagic.size() || table >= trailer || objects == 0 ||
            objects > (trailer - table) / offsetSize_ || top >= objects) {
            return "binary property list is damaged";
        }
        table_ = static_cast<std::size_t>(table);
        objects_ = static_cast<std::size_t>(objects);
        costs_.assign(objects_, Cost{});
        return walk(static_cast<std::size_t>(top));
    }

  private:
    enum class State : std::uint8_t { Unseen, Open, Done };

    // What one object and everything below it costs, each figure saturating
    // just past its limit so that it fits the small field.
    struct Cost {
        std::uint32_t nodes = 0;
        std::uint32_t bytes = 0;
        std::uint16_t depth = 0;
        State state = State::Unseen;
    };

    // One object as read from its marker: its own bytes and where its
    // references lie (none for a scalar).
    struct Object {
        std::uint64_t ownBytes = 0;
        std::size_t refsAt = 0;
        std::uint64_t refCount = 0;
    };

    // A container being walked: its object, the next reference to follow,
    // and the sums of the children seen so far.
    struct Frame {
        std::size_t index = 0;
        Object object;
        std::uint64_t next = 0;
        std::uint64_t nodes = 0;
        std::uint64_t bytes = 0;
        std::uint64_t depth = 0;
    };

    std::string read(std::size_t index, Object& out) const {
        const std::size_t entry = table_ + index * offsetSize_;
        const std::uint64_t offset = readBigEndian(b_, entry, offsetSize_);
        if (offset < kBinaryMagic.size() || offset >= table_) {
            return "binary property list is damaged";
        }
        std::size_t at = static_cast<std::size_t>(offset);
        const auto marker = static_cast<unsigned char>(b_[at]);
        const unsigned type = marker & 0xF0U;
        std::uint64_t count = marker & 0x0FU;
        ++at;
        const bool sized = type == 0x40 || type == 0x50 || type == 0x60 || type == 0xA0 ||
                           type == 0xC0 || type == 0xD0;
        if (!sized) {
            return {};  // a scalar: its node is all it costs
        }
        if (count == 0x0F) {
            // The count follows as an integer object of 2^N bytes.
            if (at >= table_ || (static_cast<unsigned char>(b_[at]) & 0xF0U) != 0x10) {
                return "binary property list is damaged";
            }
            const std::size_t width = std::size_t{1}
                                      << (static_cast<unsigned char>(b_[at]) & 0x0FU);
            if (width > 8 || table_ - at - 1 < width) {
                return "binary property list is damaged";
            }
            count = readBigEndian(b_, at + 1, width);
            at += 1 + width;
        }
        const std::size_t room = table_ - at;
        switch (type) {
            case 0x40:  // data
            case 0x50:  // ASCII string, copied with a terminating NUL
                if (count > room) {
                    return "binary property list is damaged";
                }
                if (count > budget_.maxItemBytes) {
                    return moreThan(budget_.maxItemBytes, "bytes in one value");
                }
                // libplist aborts on a dictionary key with a NUL in it, and
                // neither written form could carry such a string back.
                if (type == 0x50 && std::memchr(b_.data() + at, 0, count) != nullptr) {
                    return "binary property list holds a string with a NUL character";
                }
                out.ownBytes = count + (type == 0x50 ? 1 : 0);
                return {};
            case 0x60:  // UTF-16 string, converted to at most 4 bytes a unit
                if (count > room / 2) {
                    return "binary property list is damaged";
                }
                if (count * 3 > budget_.maxItemBytes) {
                    return moreThan(budget_.maxItemBytes, "bytes in one value");
                }
                for (std::uint64_t i = 0; i < count; ++i) {
                    if (b_[at + 2 * i] == 0 && b_[at + 2 * i + 1] == 0) {
                        return "binary property list holds a string with a NUL character";
                    }
                }
                out.ownBytes = 4 * (count + 1);
                return {};
            case 0xD0:  // dictionary: the key references, then the values'
                if (count > room / refSize_ / 2) {
                    return "binary property list is damaged";
                }
                out.refsAt = at;
                out.refCount = 2 * count;
                return {};
            default:  // array or set
                if (count > room / refSize_) {
                    return "binary property list is damaged";
                }
                out.refsAt = at;
                out.refCount = count;
                return {};
        }
    }

    std::string check(const Frame& f) const {
        if (f.nodes > budget_.maxNodes) {
            return moreThan(budget_.maxNodes, "values");
        }
        if (f.bytes > budget_.maxBytes) {
            return moreThan(budget_.maxBytes, "bytes of strings and data");
        }
        return {};
    }

    void store(std::size_t index, const Frame& f) {
        Cost& c = costs_[index];
        c.nodes = static_cast<std::uint32_t>(std::min<std::uint64_t>(f.nodes, UINT32_MAX));
        c.bytes = static_cast<std::uint32_t>(std::min<std::uint64_t>(f.bytes, UINT32_MAX));
        c.depth = static_cast<std::uint16_t>(std::min<std::uint64_t>(f.depth, UINT16_MAX));
        c.state = State::Done;
    }

    static void addChild(Frame& parent, const Cost& child) {
        parent.nodes = saturatingAdd(parent.nodes, child.nodes);
        parent.bytes = saturatingAdd(parent.bytes, child.bytes);
        parent.depth = std::max<std::uint64_t>(parent.depth, child.depth + std::uint64_t{1});
    }

    std::string walk(std::size_t top) {
        std::vector<Frame> stack;
        auto open = [&](std::size_t index) -> std::string {
            Frame f;
            f.index = index;
            if (std::string why = read(index, f.object); !why.empty()) {
                return why;
            }
            f.nodes = 1;
            f.bytes = f.object.ownBytes;
            f.depth = f.object.refCount > 0 ? 1 : 0;
            if (f.object.refCount == 0) {
                store(index, f);  // nothing below it
                return check(f);
            }
            if (stack.size() >= budget_.maxDepth) {
                return "property list nested more than " + std::to_string(budget_.maxDepth) +
                       " deep";
            }
            costs_[index].state = State::Open;
            stack.push_back(f);
            return {};
        };
        if (std::string why = open(top); !why.empty()) {
            return why;
        }
        while (!stack.empty()) {
            Frame& f = stack.back();
            if (f.next == f.object.refCount) {
                store(f.index, f);
                const Cost done = costs_[f.index];
                stack.pop_back();
                if (!stack.empty()) {
                    addChild(stack.back(), done);
                    if (std::string why = check(stack.back()); !why.empty()) {
                        return why;
                    }
                }
                continue;
            }
            const std::uint64_t child =
                readBigEndian(b_, f.object.refsAt + f.next * refSize_, refSize_);
            ++f.next;
            if (child >= objects_) {
                return "binary property list is damaged";
            }
            const std::size_t index = static_cast<std::size_t>(child);
            switch (costs_[index].state) {
                case State::Open:
                    return "binary property list refers to itself";
                case State::Done:
                    // Met again lower down: its depth counts from here.
                    if (stack.size() + costs_[index].depth > budget_.maxDepth) {
                        return "property list nested more than " +
                               std::to_string(budget_.maxDepth) + " deep";
                    }
                    addChild(f, costs_[index]);
                    if (std::string why = check(f); !why.empty()) {
                        return why;
                    }
                    break;
                case State::Unseen: {
                    const std::size_t parent = stack.size() - 1;
                    if (std::string why = open(index); !why.empty()) {
                        return why;
                    }
                    if (costs_[index].state == State::Done) {  // a scalar, costed at once
                        addChild(stack[parent], costs_[index]);
                        if (std::string why = check(stack[parent]); !why.empty()) {
                            return why;
                        }
                    }
                    break;
                }
            }
        }
        return {};
    }

    std::string_view b_;
    const Budget& budget_;
    std::size_t offsetSize_ = 0;
    std::size_t refSize_ = 0;
    std::size_t table_ = 0;
    std::size_t objects_ = 0;
    std::vector<Cost> costs_;
};

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\0';
}

// An XML document has no shared objects: what it builds is bounded by its
// size, but for its nesting, which libplist follows by recursion. The scan
// follows the markup to count elements (every value and key is one), measure
// nesting and text, and see that the document is whole. Every element takes
// at most two '<', so their number bounds the nodes whatever a parser makes
// of comments and declarations.
std::string xmlOverBudget(std::string_view t, const Budget& budget) {
    constexpr std::string_view kIncomplete =
        "not a property list: XML document incomplete or not a plist";
    if (static_cast<std::size_t>(std::count(t.begin(), t.end(), '<')) > 2 * budget.maxNodes + 16) {
        return moreThan(budget.maxNodes, "values");
    }
    std::size_t elements = 0;
    if (t.substr(0, 3) == "\xEF\xBB\xBF") {
        t.remove_prefix(3);
    }
    std::size_t depth = 0;
    std::size_t text = 0;  // character data since the last tag
    std::size_t totalText = 0;
    bool rootOpened = false;
    bool rootClosed = false;
    // The white space between elements builds nothing.
    bool blankText = true;
    auto endOfText = [&]() -> std::string {
        if (blankText) {
            text = 0;
        }
        blankText = true;
        if (text > budget.maxItemBytes) {
            return moreThan(budget.maxItemBytes, "bytes in one value");
        }
        totalText += text;
        text = 0;
        return totalText > budget.maxBytes ? moreThan(budget.maxBytes, "bytes of strings and data")
                                           : std::string();
    };
    // The '>' that ends a tag or declaration opened at `from`, past quoted
    // values and a bracketed internal subset.
    auto tagEnd = [&](std::size_t from) {
        char quote = 0;
        int brackets = 0;
        for (std::size_t i = from; i < t.size(); ++i) {
            const char c = t[i];
            if (quote != 0) {
                if (c == quote) {
                    quote = 0;
                }
            } else if (c == '"' || c == '\'') {
                quote = c;
            } else if (c == '[') {
                ++brackets;
            } else if (c == ']') {
                --brackets;
            } else if (c == '>' && brackets <= 0) {
                return i;
            }
        }
        return std::string_view::npos;
    };

    std::size_t i = 0;
    while (i < t.size()) {
        if (t[i] != '<') {
            const std::size_t next = std::min(t.find('<', i), t.size());
            if (depth == 0 &&
                !std::all_of(t.begin() + static_cast<std::ptrdiff_t>(i),
                             t.begin() + static_cast<std::ptrdiff_t>(next), isBlank)) {
                return std::string(kIncomplete);
            }
            blankText =
                blankText && std::all_of(t.begin() + static_cast<std::ptrdiff_t>(i),
                                         t.begin() + static_cast<std::ptrdiff_t>(next), isBlank);
            text += next - i;
            i = next;
            continue;
        }
        const std::string_view rest = t.substr(i);
        std::size_t end = std::string_view::npos;
        std::size_t skip = 0;
        if (rest.substr(0, 4) == "<!--") {
            end = t.find("-->", i + 4);
            skip = 3;
        } else if (rest.substr(0, 9) == "<![CDATA[") {
            end = t.find("]]>", i + 9);
            skip = 3;
            if (depth == 0) {
                return std::string(kIncomplete);
            }
            if (end != std::string_view::npos) {
                text += end - (i + 9);
                blankText = false;
            }
        } else if (rest.substr(0, 2) == "<?") {
            end = t.find("?>", i + 2);
            skip = 2;
        } else if (rest.substr(0, 2) == "<!") {
            end = tagEnd(i + 2);
            skip = 1;
        } else if (rest.substr(0, 2) == "</") {
            end = t.find('>', i + 2);
            skip = 1;
            if (end == std::string_view::npos || depth == 0) {
                return std::string(kIncomplete);
            }
            if (std::string why = endOfText(); !why.empty()) {
                return why;
            }
            if (--depth == 0) {
                rootClosed = true;
            }
        } else {
            end = tagEnd(i + 1);
            if (end == std::string_view::npos || rootClosed) {
                return std::string(kIncomplete);
            }
            if (std::string why = endOfText(); !why.empty()) {
                return why;
            }
            if (depth == 0) {
                const std::string_view name = rest.substr(1, 5);
                if (name != "plist" ||
                    (rest.size() > 6 && rest[6] != '>' && rest[6] != '/' && !isBlank(rest[6]))) {
                    return std::string(kIncomplete);
                }
                rootOpened = true;
            } else if (++elements > budget.maxNodes) {
                return moreThan(budget.maxNodes, "values");
            }
            if (t[end - 1] != '/') {
                // Containers count as in a binary list: the "plist" element
                // around them and the scalar element inside the deepest one
                // are not levels.
                if (++depth > budget.maxDepth + 2) {
                    return "property list nested more than " + std::to_string(budget.maxDepth) +
                           " deep";
                }
            } else if (depth == 0) {
                rootClosed = true;
            }
            skip = 1;
        }
        if (end == std::string_view::npos) {
            return std::string(kIncomplete);
        }
        i = end + skip;
    }
    if (!rootOpened || !rootClosed) {
        return std::string(kIncomplete);
    }
    return {};
}

}  // namespace

std::string overBudget(std::string_view bytes, const Budget& budget) {
    if (bytes.substr(0, kBinaryMagic.size()) == kBinaryMagic) {
        return BinaryWalk(bytes, budget).run();
    }
    return xmlOverBudget(bytes, budget);
}

}  // namespace tessary::plist
