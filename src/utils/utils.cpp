// Password digests, the probability draw of the purges, string splitting and the text form of
// field values.
#include "kovasharing/utils.h"

#include <dlfcn.h>
#include <gcrypt.h>
#include <openssl/md5.h>
#include <openssl/opensslv.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kova_random.h"

namespace KOVA {
namespace sharing {

namespace {

// libgcrypt is loaded on the first salted SHA-1 digest, not with the library: a web process
// that only checks a visitor's authorization never hashes a password, and would otherwise
// pay for loading libgcrypt and libgpg-error on every request. The number is libgcrypt's
// interface version, the one the library is built against.
// Writes `size` bytes as 2 * `size` lower-case hex digits and a terminating 0 into `text`.
void WriteHex(unsigned char const* bytes, size_t size, char* text) {
  static char const kDigits[] = "0123456789abcdef";
  for (size_t i = 0; i < size; ++i) {
    text[2 * i] = kDigits[bytes[i] >> 4];
    text[2 * i + 1] = kDigits[bytes[i] & 15];
  }
  text[2 * size] = '\0';
}

struct Sha1Calls {
  decltype(&gcry_control) control = nullptr;
  decltype(&gcry_md_get_algo_dlen) algo_dlen = nullptr;
  decltype(&gcry_md_hash_buffer) hash_buffer = nullptr;
};

Sha1Calls const* LoadSha1() {
  static Sha1Calls calls;
  static bool const loaded = [] {
    void* gcrypt = dlopen("libgcrypt.so.20", RTLD_NOW | RTLD_LOCAL);
    if (gcrypt == nullptr) return false;
    calls.control = reinterpret_cast<decltype(calls.control)>(dlsym(gcrypt, "gcry_control"));
    calls.algo_dlen =
        reinterpret_cast<decltype(calls.algo_dlen)>(dlsym(gcrypt, "gcry_md_get_algo_dlen"));
    calls.hash_buffer =
        reinterpret_cast<decltype(calls.hash_buffer)>(dlsym(gcrypt, "gcry_md_hash_buffer"));
    return calls.control != nullptr && calls.algo_dlen != nullptr && calls.hash_buffer != nullptr;
  }();
  return loaded ? &calls : nullptr;
}

}  // namespace

bool Sha1WithSaltHashPassword(std::string const& password, std::string const& salt,
                              std::string& out) {
  Sha1Calls const* sha1 = LoadSha1();
  if (sha1 == nullptr) return false;
  std::string const input = password + salt;
  // Repeated on every call: the library may be the first libgcrypt user of the process.
  sha1->control(GCRYCTL_DISABLE_SECMEM, 0);
  sha1->control(GCRYCTL_INITIALIZATION_FINISHED, 0);
  unsigned int const len = sha1->algo_dlen(GCRY_MD_SHA1);
  char* text = static_cast<char*>(malloc(len * 2 + 1));
  if (text == nullptr) return false;
  unsigned char digest[64];
  sha1->hash_buffer(GCRY_MD_SHA1, digest, input.data(), input.size());
  WriteHex(digest, len, text);
  out = text;
  free(text);
  return true;
}

namespace {

#define KOVA_TEXT_(x) #x
#define KOVA_TEXT(x) KOVA_TEXT_(x)

// libcrypto is loaded when the first MD5 digest is asked for, not with the library: only links
// that still hold an MD5 digest need it, and loading it (thousands of relocations) would cost
// every short-lived web process a millisecond it rarely uses.
// Stored digests are plain MD5 of these exact calls; the warnings about the old interface are
// silenced here and nowhere else.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
struct Md5Calls {
  decltype(&MD5_Init) init = nullptr;
  decltype(&MD5_Update) update = nullptr;
  decltype(&MD5_Final) final = nullptr;
};
#pragma GCC diagnostic pop

Md5Calls const* LoadMd5() {
  static Md5Calls calls;
  static bool const loaded = [] {
    void* crypto = dlopen("libcrypto.so." KOVA_TEXT(OPENSSL_SHLIB_VERSION), RTLD_NOW | RTLD_LOCAL);
    if (crypto == nullptr) return false;
    calls.init = reinterpret_cast<decltype(calls.init)>(dlsym(crypto, "MD5_Init"));
    calls.update = reinterpret_cast<decltype(calls.update)>(dlsym(crypto, "MD5_Update"));
    calls.final = reinterpret_cast<decltype(calls.final)>(dlsym(crypto, "MD5_Final"));
    return calls.init != nullptr && calls.update != nullptr && calls.final != nullptr;
  }();
  return loaded ? &calls : nullptr;
}

}  // namespace

bool MD5HashPassword(std::string const& password, std::string& out) {
  if (password.empty()) return false;
  Md5Calls const* md5 = LoadMd5();
  if (md5 == nullptr) return false;
  unsigned char digest[MD5_DIGEST_LENGTH];
  MD5_CTX ctx;
  if (md5->init(&ctx) < 1) return false;
  if (md5->update(&ctx, password.data(), password.size()) < 1) return false;
  if (md5->final(digest, &ctx) < 1) return false;
  char text[MD5_DIGEST_LENGTH * 2 + 1];
  WriteHex(digest, MD5_DIGEST_LENGTH, text);
  out = text;
  return true;
}

bool IsProbabilityHit(float probability) {
  static KOVA::RANDOM::KOVARandom generator;
  int const r = generator.random(0, 99);
  // Whole percent, truncated toward zero: below 0.01 never hits. Values far outside [0, 1]
  // are clamped first, since they would not fit the integer.
  float const scaled = probability * 100.0f;
  int limit;
  if (!(scaled > -1.0f)) {
    limit = 0;  // negative or not a number
  } else if (scaled >= 1000.0f) {
    limit = 1000;
  } else {
    limit = static_cast<int>(scaled);
  }
  return r < limit;
}

bool StringExplode(std::vector<std::string>& out, std::string const& text, char const* delimiter) {
  if (delimiter == nullptr) return false;
  std::size_t const dlen = strlen(delimiter);
  // An empty delimiter would be found at the same place forever.
  if (dlen == 0) return false;
  out.clear();
  std::size_t start = 0;
  for (;;) {
    std::size_t const pos = text.find(delimiter, start, dlen);
    if (pos == std::string::npos) break;
    if (pos > start) out.push_back(text.substr(start, pos - start));
    start = pos + dlen;
  }
  if (start < text.size()) out.push_back(text.substr(start));
  return true;
}

template <>
std::string ToString<std::string>(std::string& value) {
  return value;
}

template <>
std::string ToString<bool>(bool& value) {
  return value ? "1" : "0";
}

// Numbers in plain decimal, as a default-formatted stream in the classic locale writes them
// (and whatever locale the program has set).
template <>
std::string ToString<bool const>(bool const& value) {
  return value ? "1" : "0";
}

template <>
std::string ToString<int const>(int const& value) {
  return std::to_string(value);
}

template <>
std::string ToString<long const>(long const& value) {
  return std::to_string(value);
}

}  // namespace sharing
}  // namespace KOVA
