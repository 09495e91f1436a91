#pragma once
// Md5Stream: an MD5 checksum computed over data fed in pieces (OpenSSL libcrypto, EVP).
//
// Feed bytes with update(), then take the digest with getDigest(); after that the stream starts
// over, empty. Not shared between threads; distinct streams run on any threads at once.

#include <cstddef>
#include <string_view>

#include "util/Digest.h"

struct evp_md_ctx_st;

namespace qor {

class Md5Stream {
public:
    // Throws Exception when libcrypto cannot provide MD5 (a FIPS-only configuration).
    Md5Stream();
    ~Md5Stream();
    Md5Stream(const Md5Stream&) = delete;
    Md5Stream& operator=(const Md5Stream&) = delete;

    void update(const void* data, size_t size);
    void update(std::string_view data) { update(data.data(), data.size()); }
    // The checksum of everything fed since construction or the last getDigest(); resets.
    Digest getDigest();

    // MD5 of one block of memory.
    static Digest of(const void* data, size_t size);
    static Digest of(std::string_view data) { return of(data.data(), data.size()); }

private:
    void restart();

    evp_md_ctx_st* _ctx;
};

}  // namespace qor
