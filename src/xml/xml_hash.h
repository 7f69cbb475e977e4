// A keyed hash for the sets that check attribute names: the parser's
// duplicate check of one tag, and the index of an element with many
// attributes. Each set draws its own key, so that no choice of names can make
// its entries collide.
#ifndef KRV_XML_HASH_H
#define KRV_XML_HASH_H

#include <chrono>
#include <cstdint>
#include <cstring>

inline uint64_t xmlRotl(uint64_t x, int b)
{
    return (x << b) | (x >> (64 - b));
}

// SipHash-1-3 over a byte stream: a keyed hash with no known way to find
// collisions without the key.
struct XmlSipHash {
    uint64_t v[4];
    uint64_t word = 0;
    uint64_t length = 0;

    explicit XmlSipHash(const uint64_t key[2])
        : v{key[0] ^ 0x736f6d6570736575ull, key[1] ^ 0x646f72616e646f6dull,
            key[0] ^ 0x6c7967656e657261ull, key[1] ^ 0x7465646279746573ull}
    {
    }
    void round()
    {
        v[0] += v[1];
        v[1] = xmlRotl(v[1], 13) ^ v[0];
        v[0] = xmlRotl(v[0], 32);
        v[2] += v[3];
        v[3] = xmlRotl(v[3], 16) ^ v[2];
        v[0] += v[3];
        v[3] = xmlRotl(v[3], 21) ^ v[0];
        v[2] += v[1];
        v[1] = xmlRotl(v[1], 17) ^ v[2];
        v[2] = xmlRotl(v[2], 32);
    }
    void compress(uint64_t m)
    {
        v[3] ^= m;
        round();
        v[0] ^= m;
    }
    void add(unsigned char c)
    {
        word |= static_cast<uint64_t>(c) << (8 * (length & 7));
        if ((++length & 7) == 0) {
            compress(word);
            word = 0;
        }
    }
    void add(const char *s)
    {
        for (; s != nullptr && *s != '\0'; ++s) {
            add(static_cast<unsigned char>(*s));
        }
    }
    // The len bytes at s, on a fresh hash: eight at a time.
    void addFresh(const char *s, size_t len)
    {
        for (; length + 8 <= len; length += 8) {
            uint64_t m;
            std::memcpy(&m, s + length, 8);
            compress(m);
        }
        for (; length < len; ++length) {
            auto c = static_cast<unsigned char>(s[length]);
            word |= static_cast<uint64_t>(c) << (8 * (length & 7));
        }
    }
    uint64_t finish()
    {
        compress(word | (length << 56));
        v[2] ^= 0xff;
        round();
        round();
        round();
        return v[0] ^ v[1] ^ v[2] ^ v[3];
    }
};

inline uint64_t xmlMix64(uint64_t x)
{
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
    return x ^ (x >> 31);
}

// A key no text can foresee: the clock and the addresses of the new set and
// of the stack, which differ from process to process.
inline void xmlDrawKey(uint64_t key[2], const void *set)
{
    auto ticks = static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
    auto stack = reinterpret_cast<uintptr_t>(&ticks);
    key[0] = xmlMix64(ticks ^ xmlMix64(reinterpret_cast<uintptr_t>(set)));
    key[1] = xmlMix64(key[0] ^ stack);
}

#endif  // KRV_XML_HASH_H
