#include "kova_random.h"

#include <kova_log.h>
#include <sys/random.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace KOVA {
namespace RANDOM {

char const* const POOL_ALPHA_NUMERIC =
    "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
char const* const POOL_URL_FRIENDLY =
    "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz-_";

namespace {

// Bytes are fetched from the source in batches of at most this size, so that a string costs
// one system call rather than one per character.
constexpr std::size_t kBatch = 256;

// Hands out random bytes and 32-bit words from one batch at a time; `Fill` is the source.
template <typename Fill>
class Stream {
 public:
  Stream(Fill fill, std::size_t hint) : fill_(fill), want_(hint < kBatch ? hint : kBatch) {
    if (want_ == 0) want_ = 1;
  }

  bool Byte(unsigned char& b) {
    if (pos_ == have_) {
      if (!fill_(buf_, want_)) return false;
      pos_ = 0;
      have_ = want_;
    }
    b = buf_[pos_++];
    return true;
  }

  bool Word(std::uint32_t& w) {
    w = 0;
    for (int i = 0; i < 4; ++i) {
      unsigned char b;
      if (!Byte(b)) return false;
      w = (w << 8) | b;
    }
    return true;
  }

  // A value uniform in [0, n) for 1 <= n <= 2^32. Draws that fall into the incomplete last
  // block of the source's range are thrown away, so every value keeps the same share.
  bool Below(std::uint64_t n, std::uint64_t& value) {
    if (n <= 256) {
      unsigned const limit = 256u - (256u % static_cast<unsigned>(n));
      for (;;) {
        unsigned char b;
        if (!Byte(b)) return false;
        if (b < limit) {
          value = b % n;
          return true;
        }
      }
    }
    std::uint64_t const span = std::uint64_t{1} << 32;
    std::uint64_t const limit = span - (span % n);
    for (;;) {
      std::uint32_t w;
      if (!Word(w)) return false;
      if (w < limit) {
        value = w % n;
        return true;
      }
    }
  }

 private:
  Fill fill_;
  std::size_t want_;
  unsigned char buf_[kBatch] = {};
  std::size_t pos_ = 0;
  std::size_t have_ = 0;
};

template <typename Fill>
Stream<Fill> MakeStream(Fill fill, std::size_t hint) {
  return Stream<Fill>(fill, hint);
}

}  // namespace

KOVARandomBase::~KOVARandomBase() = default;

bool KOVARandomBase::getString(std::string const& pool, std::size_t length, std::string& out) {
  if (pool.empty()) return false;
  // A little more than one byte per character leaves room for rejected bytes.
  auto stream = MakeStream([this](unsigned char* buf, std::size_t n) { return bytes(buf, n); },
                           length + length / 8 + 8);
  std::string drawn;
  drawn.reserve(length);
  for (std::size_t i = 0; i < length; ++i) {
    std::uint64_t index;
    if (!stream.Below(pool.size(), index)) return false;
    drawn.push_back(pool[static_cast<std::size_t>(index)]);
  }
  out.swap(drawn);
  return true;
}

int KOVARandomBase::random(int low, int high) {
  if (high <= low) return low;
  auto stream = MakeStream([this](unsigned char* buf, std::size_t n) { return bytes(buf, n); }, 8);
  std::uint64_t const span = static_cast<std::uint64_t>(static_cast<std::int64_t>(high) - low) + 1;
  std::uint64_t offset;
  if (!stream.Below(span, offset)) return low;
  return static_cast<int>(static_cast<std::int64_t>(low) + static_cast<std::int64_t>(offset));
}

KOVARandom::KOVARandom() = default;
KOVARandom::~KOVARandom() = default;

bool KOVARandom::bytes(void* buf, std::size_t n) {
  unsigned char* p = static_cast<unsigned char*>(buf);
  std::size_t got = 0;
  while (got < n) {
    ssize_t const r = getrandom(p + got, n - got, 0);
    if (r < 0) {
      if (errno == EINTR) continue;
      KOVA_LOG_PID("kova_random", __LINE__, "getrandom failed, err=%m\n");
      return false;
    }
    got += static_cast<std::size_t>(r);
  }
  return true;
}

}  // namespace RANDOM
}  // namespace KOVA
