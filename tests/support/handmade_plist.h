#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

namespace tessary::testing {

// Binary property lists written by hand, for what no writer would make:
// shared children, loops, strings that are not UTF-8. Objects are listed in
// order, object 0 at the top; references and offsets are as wide as they
// need to be.
class HandMadeList {
  public:
    // Adds an object's bytes (marker and payload, references written with
    // ref() below); its index.
    int add(std::string object) {
        objects_.push_back(std::move(object));
        return static_cast<int>(objects_.size()) - 1;
    }
    // A string object of any bytes, read as ASCII (one byte a character).
    static std::string string(const std::string& bytes) {
        return sized(0x50, bytes.size()) + bytes;
    }
    std::string array(const std::vector<int>& refs) const {
        std::string out = sized(0xA0, refs.size());
        for (int r : refs) {
            out += ref(r);
        }
        return out;
    }
    // A dictionary of key and value object indexes.
    std::string dictionary(const std::vector<std::pair<int, int>>& entries) const {
        std::string out = sized(0xD0, entries.size());
        for (const auto& e : entries) {
            out += ref(e.first);
        }
        for (const auto& e : entries) {
            out += ref(e.second);
        }
        return out;
    }

    // Object references are as wide as the final object count needs: say
    // how many objects there will be before writing containers.
    void expect(std::size_t objects) { refSize_ = objects < 256 ? 1 : objects < 65536 ? 2 : 4; }

    std::string bytes() const {
        std::string out = "bplist00";
        std::vector<std::size_t> offsets;
        for (const std::string& o : objects_) {
            offsets.push_back(out.size());
            out += o;
        }
        const std::size_t tableAt = out.size();
        const int offsetSize = tableAt < 256 ? 1 : tableAt < 65536 ? 2 : 4;
        for (std::size_t o : offsets) {
            out += bigEndian(o, offsetSize);
        }
        out += std::string(6, '\0');
        out += static_cast<char>(offsetSize);
        out += static_cast<char>(refSize_);
        out += bigEndian(objects_.size(), 8) + bigEndian(0, 8) + bigEndian(tableAt, 8);
        return out;
    }

    // `levels` arrays, each referring `references` times to the next, over
    // a string: with two references, 2^(levels+1) - 1 values out of
    // levels + 1 objects (a reference bomb); with one, a deep chain.
    static std::string nested(int levels, int references) {
        HandMadeList l;
        l.expect(static_cast<std::size_t>(levels) + 1);
        for (int i = 0; i < levels; ++i) {
            l.add(l.array(std::vector<int>(static_cast<std::size_t>(references), i + 1)));
        }
        l.add(string("x"));
        return l.bytes();
    }

  private:
    static std::string bigEndian(std::uint64_t v, int width) {
        std::string out;
        for (int i = width - 1; i >= 0; --i) {
            out += static_cast<char>((v >> (8 * i)) & 0xFF);
        }
        return out;
    }
    static std::string sized(unsigned marker, std::size_t count) {
        if (count < 15) {
            return std::string(1, static_cast<char>(marker | count));
        }
        return std::string(1, static_cast<char>(marker | 0x0F)) + "\x12" + bigEndian(count, 4);
    }
    std::string ref(int index) const {
        return bigEndian(static_cast<std::uint64_t>(index), refSize_);
    }

    std::vector<std::string> objects_;
    int refSize_ = 1;
};

// An XML list `levels` arrays deep.
inline std::string deepXml(int levels) {
    std::string out = "<plist version=\"1.0\">";
    for (int i = 0; i < levels; ++i) {
        out += "<array>";
    }
    for (int i = 0; i < levels; ++i) {
        out += "</array>";
    }
    return out + "</plist>";
}

}  // namespace tessary::testing
