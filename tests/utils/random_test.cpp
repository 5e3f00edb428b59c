#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <deque>
#include <map>
#include <string>

#include "kova_random.h"

using KOVA::RANDOM::KOVARandom;
using KOVA::RANDOM::KOVARandomBase;
using KOVA::RANDOM::POOL_ALPHA_NUMERIC;
using KOVA::RANDOM::POOL_URL_FRIENDLY;

namespace {

// A byte source that hands out a fixed script and zero bytes after it, or fails once
// `fail_after` bytes have been asked for; it shows how bytes become characters and numbers.
class ScriptedSource : public KOVARandomBase {
 public:
  explicit ScriptedSource(std::deque<unsigned char> script, std::size_t fail_after = SIZE_MAX)
      : script_(std::move(script)), fail_after_(fail_after) {}
  std::size_t requested = 0;

 protected:
  bool bytes(void* buf, std::size_t n) override {
    if (requested + n > fail_after_) return false;
    requested += n;
    unsigned char* p = static_cast<unsigned char*>(buf);
    for (std::size_t i = 0; i < n; ++i) {
      if (script_.empty()) {
        p[i] = 0;
      } else {
        p[i] = script_.front();
        script_.pop_front();
      }
    }
    return true;
  }

 private:
  std::deque<unsigned char> script_;
  std::size_t fail_after_;
};

// Draws `draws` characters per pool character and checks that each one's share is within
// 5% of the expected count (about five standard deviations at this size).
void ExpectEvenSpread(char const* pool, std::size_t per_char) {
  KOVARandom random;
  std::size_t const size = strlen(pool);
  std::string out;
  ASSERT_TRUE(random.getString(pool, size * per_char, out));
  ASSERT_EQ(size * per_char, out.size());
  std::map<char, std::size_t> counts;
  for (char c : out) ++counts[c];
  EXPECT_EQ(size, counts.size()) << "every pool character appears, nothing else";
  for (char const* p = pool; *p; ++p) {
    std::size_t const n = counts[*p];
    EXPECT_GT(n, per_char * 95 / 100) << "character " << *p;
    EXPECT_LT(n, per_char * 105 / 100) << "character " << *p;
  }
}

}  // namespace

TEST(Random, Pools) {
  EXPECT_STREQ("0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz",
               POOL_ALPHA_NUMERIC);
  EXPECT_STREQ("0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz-_",
               POOL_URL_FRIENDLY);
}

TEST(Random, StringsAreEvenlySpreadAndDiffer) {
  ExpectEvenSpread(POOL_ALPHA_NUMERIC, 10000);
  ExpectEvenSpread(POOL_URL_FRIENDLY, 10000);
  // A pool whose size does not divide 256 (and one longer than 256) stays even too.
  ExpectEvenSpread("abc", 20000);
  std::string wide;
  for (int i = 0; i < 300; ++i) wide.push_back(static_cast<char>(' ' + i % 95));
  KOVARandom random;
  std::string out;
  ASSERT_TRUE(random.getString(wide, 1000, out));
  EXPECT_EQ(1000u, out.size());

  std::string a, b;
  ASSERT_TRUE(random.getString(POOL_ALPHA_NUMERIC, 32, a));
  ASSERT_TRUE(random.getString(POOL_ALPHA_NUMERIC, 32, b));
  EXPECT_EQ(32u, a.size());
  EXPECT_NE(a, b);

  out = "kept";
  EXPECT_TRUE(random.getString(POOL_URL_FRIENDLY, 0, out));
  EXPECT_EQ("", out);
  out = "kept";
  EXPECT_FALSE(random.getString("", 5, out));
  EXPECT_EQ("kept", out);
}

TEST(Random, RangesAreInclusive) {
  KOVARandom random;
  std::map<int, int> seen;
  for (int i = 0; i < 20000; ++i) {
    int const r = random.random(0, 99);
    ASSERT_GE(r, 0);
    ASSERT_LE(r, 99);
    ++seen[r];
  }
  EXPECT_EQ(100u, seen.size());
  for (auto const& [value, count] : seen) {
    EXPECT_GT(count, 100) << value;
    EXPECT_LT(count, 320) << value;
  }
  bool low = false, high = false;
  for (int i = 0; i < 2000 && !(low && high); ++i) {
    int const r = random.random(-3, 3);
    ASSERT_GE(r, -3);
    ASSERT_LE(r, 3);
    low = low || r == -3;
    high = high || r == 3;
  }
  EXPECT_TRUE(low && high);
  EXPECT_EQ(5, random.random(5, 5));
  EXPECT_EQ(7, random.random(7, 1));
  // The whole int range: both halves are reached.
  bool negative = false, positive = false;
  for (int i = 0; i < 200; ++i) {
    int const r = random.random(INT_MIN, INT_MAX);
    negative = negative || r < 0;
    positive = positive || r > 0;
  }
  EXPECT_TRUE(negative && positive);
}

TEST(Random, BytesOutsideTheWholeBlocksAreRejected) {
  // 62 characters: bytes 248..255 would favour the first eight characters and are skipped.
  ScriptedSource chars({248, 255, 7, 247, 62, 0});
  std::string out;
  ASSERT_TRUE(chars.getString(POOL_ALPHA_NUMERIC, 4, out));
  EXPECT_EQ("7z00", out);
  // 64 characters divide 256: every byte is used.
  ScriptedSource url({255, 64, 63});
  ASSERT_TRUE(url.getString(POOL_URL_FRIENDLY, 3, out));
  EXPECT_EQ("_0_", out);

  // A range of 3: byte 255 is the one left over.
  ScriptedSource small({255, 254, 5});
  EXPECT_EQ(10 + 254 % 3, small.random(10, 12));
  // A range of 1000 takes 32-bit words; the last 296 word values are rejected.
  ScriptedSource wide({0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xfe, 0xd8, 0, 0, 0x03, 0xe9});
  EXPECT_EQ(1, wide.random(0, 999));              // 0x3e9 = 1001
  ScriptedSource edge({0xff, 0xff, 0xfe, 0xd7});  // 4294966999, the last accepted word
  EXPECT_EQ(-1000 + static_cast<int>(4294966999u % 1000), edge.random(-1000, -1));
}

TEST(Random, SourceFailureIsReported) {
  ScriptedSource broken({}, 0);
  std::string out = "kept";
  EXPECT_FALSE(broken.getString(POOL_ALPHA_NUMERIC, 9, out));
  EXPECT_EQ("kept", out);
  EXPECT_EQ(-4, broken.random(-4, 100));
  // A source that fails part-way gives no partial string.
  ScriptedSource tired({1, 2, 3}, 300);
  EXPECT_FALSE(tired.getString(POOL_ALPHA_NUMERIC, 1000, out));
  EXPECT_EQ("kept", out);
}
