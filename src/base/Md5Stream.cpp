#include "base/Md5Stream.h"

#include <openssl/evp.h>

#include "base/Exception.h"

namespace qor {

Md5Stream::Md5Stream() : _ctx(EVP_MD_CTX_new()) {
    if (!_ctx) throw Exception("Md5Stream: cannot create a digest context");
    restart();
}

Md5Stream::~Md5Stream() { EVP_MD_CTX_free(_ctx); }

void Md5Stream::restart() {
    if (EVP_DigestInit_ex(_ctx, EVP_md5(), nullptr) != 1)
        throw Exception("Md5Stream: MD5 is not available");
}

void Md5Stream::update(const void* data, size_t size) {
    if (size > 0) EVP_DigestUpdate(_ctx, data, size);
}

Digest Md5Stream::getDigest() {
    unsigned char md[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_DigestFinal_ex(_ctx, md, &length);
    Digest d = length == Digest::Size ? Digest::fromBytes(md) : Digest();
    restart();
    return d;
}

Digest Md5Stream::of(const void* data, size_t size) {
    Md5Stream s;
    s.update(data, size);
    return s.getDigest();
}

}  // namespace qor
