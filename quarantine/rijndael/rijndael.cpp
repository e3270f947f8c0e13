#include "quarantine/rijndael/rijndael.h"

#include <cstring>

namespace {

// Row r of a 32-byte state moves left by shift[r] columns.
constexpr int shift1 = 1;
constexpr int shift2 = 3;
constexpr int shift3 = 4;
constexpr int total_words = rijndael::block_words * (rijndael::rounds + 1);

uint8_t xtime(uint8_t x) { return static_cast<uint8_t>((x << 1) ^ ((x & 0x80) != 0 ? 0x1b : 0x00)); }

uint8_t gf_mul(uint8_t a, uint8_t b) {
    uint8_t product = 0;
    while (b != 0) {
        if ((b & 1) != 0) product ^= a;
        a = xtime(a);
        b >>= 1;
    }
    return product;
}

uint32_t ror8(uint32_t x) { return (x >> 8) | (x << 24); }

// The S-boxes and the four round tables of each direction, computed once from the field.
struct tables {
    uint8_t sbox[256];
    uint8_t inverse_sbox[256];
    uint32_t te[4][256];
    uint32_t td[4][256];

    tables() {
        // Walk the multiplicative group with generator 3 so that q is always 1/p.
        uint8_t p = 1;
        uint8_t q = 1;
        do {
            p = static_cast<uint8_t>(p ^ xtime(p));
            q = static_cast<uint8_t>(q ^ (q << 1));
            q = static_cast<uint8_t>(q ^ (q << 2));
            q = static_cast<uint8_t>(q ^ (q << 4));
            if ((q & 0x80) != 0) q ^= 0x09;
            const auto rotl = [](uint8_t v, int n) { return static_cast<uint8_t>((v << n) | (v >> (8 - n))); };
            sbox[p] = static_cast<uint8_t>(q ^ rotl(q, 1) ^ rotl(q, 2) ^ rotl(q, 3) ^ rotl(q, 4) ^ 0x63);
        } while (p != 1);
        sbox[0] = 0x63;
        for (int i = 0; i < 256; ++i) inverse_sbox[sbox[i]] = static_cast<uint8_t>(i);

        for (int i = 0; i < 256; ++i) {
            const uint8_t s = sbox[i];
            const uint8_t si = inverse_sbox[i];
            te[0][i] = (uint32_t{gf_mul(s, 2)} << 24) | (uint32_t{s} << 16) | (uint32_t{s} << 8) | gf_mul(s, 3);
            td[0][i] = (uint32_t{gf_mul(si, 0x0e)} << 24) | (uint32_t{gf_mul(si, 0x09)} << 16) |
                       (uint32_t{gf_mul(si, 0x0d)} << 8) | gf_mul(si, 0x0b);
            for (int t = 1; t < 4; ++t) {
                te[t][i] = ror8(te[t - 1][i]);
                td[t][i] = ror8(td[t - 1][i]);
            }
        }
    }
};

const tables& the_tables() {
    static const tables t;
    return t;
}

uint32_t load_be(const unsigned char* p) {
    return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

void store_be(uint32_t v, unsigned char* p) {
    p[0] = static_cast<unsigned char>(v >> 24);
    p[1] = static_cast<unsigned char>(v >> 16);
    p[2] = static_cast<unsigned char>(v >> 8);
    p[3] = static_cast<unsigned char>(v);
}

uint32_t sub_word(const tables& t, uint32_t w) {
    return (uint32_t{t.sbox[w >> 24]} << 24) | (uint32_t{t.sbox[(w >> 16) & 0xff]} << 16) |
           (uint32_t{t.sbox[(w >> 8) & 0xff]} << 8) | t.sbox[w & 0xff];
}

}  // namespace

rijndael::~rijndael() {
    // The key schedule and chain are secrets; leave nothing behind.
    volatile unsigned char* p = reinterpret_cast<volatile unsigned char*>(encrypt_keys_);
    for (size_t i = 0; i < sizeof(encrypt_keys_); ++i) p[i] = 0;
    p = reinterpret_cast<volatile unsigned char*>(decrypt_keys_);
    for (size_t i = 0; i < sizeof(decrypt_keys_); ++i) p[i] = 0;
}

void rijndael::make_key(const unsigned char* key, const unsigned char* chain) {
    if (key == nullptr) throw rijndael_error("Empty key");
    const tables& t = the_tables();
    key_length_ = key_length;
    block_length_ = block_length;
    rounds_ = rounds;
    if (chain != nullptr) {
        memcpy(initial_chain_, chain, block_length);
    } else {
        memset(initial_chain_, 0, block_length);
    }
    memcpy(chain_, initial_chain_, block_length);

    constexpr int nk = key_length / 4;
    uint32_t w[total_words];
    for (int i = 0; i < nk; ++i) w[i] = load_be(key + 4 * i);
    uint8_t rcon = 1;
    for (int i = nk; i < total_words; ++i) {
        uint32_t temp = w[i - 1];
        if (i % nk == 0) {
            temp = sub_word(t, (temp << 8) | (temp >> 24)) ^ (uint32_t{rcon} << 24);
            rcon = xtime(rcon);
        } else if (i % nk == 4) {
            temp = sub_word(t, temp);
        }
        w[i] = w[i - nk] ^ temp;
    }
    for (int r = 0; r <= rounds; ++r)
        for (int j = 0; j < block_words; ++j) encrypt_keys_[r][j] = w[r * block_words + j];

    // Equivalent inverse cipher: reverse the round order and pass the inner round keys
    // through InvMixColumns (the td tables undo the S-box that is fed in here).
    for (int r = 0; r <= rounds; ++r) {
        for (int j = 0; j < block_words; ++j) {
            const uint32_t k = encrypt_keys_[rounds - r][j];
            if (r == 0 || r == rounds) {
                decrypt_keys_[r][j] = k;
            } else {
                decrypt_keys_[r][j] = t.td[0][t.sbox[k >> 24]] ^ t.td[1][t.sbox[(k >> 16) & 0xff]] ^
                                      t.td[2][t.sbox[(k >> 8) & 0xff]] ^ t.td[3][t.sbox[k & 0xff]];
            }
        }
    }
    memset(w, 0, sizeof(w));
    key_set_ = true;
}

void rijndael::reset_chain() { memcpy(chain_, initial_chain_, block_length); }

void rijndael::check_ready(size_t n) const {
    if (!key_set_) throw rijndael_error("Object not Initialized");
    if (n == 0 || n % block_length != 0) throw rijndael_error("Data not multiple of Block Size");
}

void rijndael::encrypt_block(const unsigned char* in, unsigned char* out) {
    if (!key_set_) throw rijndael_error("Object not Initialized");
    const tables& t = the_tables();
    uint32_t s[block_words];
    for (int j = 0; j < block_words; ++j) s[j] = load_be(in + 4 * j) ^ encrypt_keys_[0][j];
    for (int r = 1; r < rounds; ++r) {
        for (int j = 0; j < block_words; ++j) {
            work_[j] = t.te[0][s[j] >> 24] ^ t.te[1][(s[(j + shift1) % block_words] >> 16) & 0xff] ^
                       t.te[2][(s[(j + shift2) % block_words] >> 8) & 0xff] ^
                       t.te[3][s[(j + shift3) % block_words] & 0xff] ^ encrypt_keys_[r][j];
        }
        memcpy(s, work_, sizeof(s));
    }
    for (int j = 0; j < block_words; ++j) {
        const uint32_t v = (uint32_t{t.sbox[s[j] >> 24]} << 24) |
                           (uint32_t{t.sbox[(s[(j + shift1) % block_words] >> 16) & 0xff]} << 16) |
                           (uint32_t{t.sbox[(s[(j + shift2) % block_words] >> 8) & 0xff]} << 8) |
                           t.sbox[s[(j + shift3) % block_words] & 0xff];
        store_be(v ^ encrypt_keys_[rounds][j], out + 4 * j);
    }
}

void rijndael::decrypt_block(const unsigned char* in, unsigned char* out) {
    if (!key_set_) throw rijndael_error("Object not Initialized");
    const tables& t = the_tables();
    constexpr int back1 = block_words - shift1;
    constexpr int back2 = block_words - shift2;
    constexpr int back3 = block_words - shift3;
    uint32_t s[block_words];
    for (int j = 0; j < block_words; ++j) s[j] = load_be(in + 4 * j) ^ decrypt_keys_[0][j];
    for (int r = 1; r < rounds; ++r) {
        for (int j = 0; j < block_words; ++j) {
            work_[j] = t.td[0][s[j] >> 24] ^ t.td[1][(s[(j + back1) % block_words] >> 16) & 0xff] ^
                       t.td[2][(s[(j + back2) % block_words] >> 8) & 0xff] ^
                       t.td[3][s[(j + back3) % block_words] & 0xff] ^ decrypt_keys_[r][j];
        }
        memcpy(s, work_, sizeof(s));
    }
    for (int j = 0; j < block_words; ++j) {
        const uint32_t v = (uint32_t{t.inverse_sbox[s[j] >> 24]} << 24) |
                           (uint32_t{t.inverse_sbox[(s[(j + back1) % block_words] >> 16) & 0xff]} << 16) |
                           (uint32_t{t.inverse_sbox[(s[(j + back2) % block_words] >> 8) & 0xff]} << 8) |
                           t.inverse_sbox[s[(j + back3) % block_words] & 0xff];
        store_be(v ^ decrypt_keys_[rounds][j], out + 4 * j);
    }
}

void rijndael::encrypt(const unsigned char* in, unsigned char* out, size_t n) {
    check_ready(n);
    for (size_t at = 0; at < n; at += block_length) {
        for (int i = 0; i < block_length; ++i) chain_[i] ^= in[at + i];
        encrypt_block(chain_, chain_);
        memcpy(out + at, chain_, block_length);
    }
}

void rijndael::decrypt(const unsigned char* in, unsigned char* out, size_t n) {
    check_ready(n);
    unsigned char cipher_block[block_length];
    for (size_t at = 0; at < n; at += block_length) {
        memcpy(cipher_block, in + at, block_length);  // in and out may alias
        decrypt_block(cipher_block, out + at);
        for (int i = 0; i < block_length; ++i) out[at + i] ^= chain_[i];
        memcpy(chain_, cipher_block, block_length);
    }
}
