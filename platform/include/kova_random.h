// Random source of the appliance: the kernel's getrandom(2), mapped onto pools and ranges
// without modulo bias. A failure of the kernel source is reported, never replaced by a weaker
// generator.
#ifndef KOVA_RANDOM_H
#define KOVA_RANDOM_H

#include <cstddef>
#include <string>

#include "kova_platform_export.h"

namespace KOVA {
namespace RANDOM {

// "0-9A-Za-z" (62 characters).
KOVA_PLATFORM_EXPORT extern char const* const POOL_ALPHA_NUMERIC;
// POOL_ALPHA_NUMERIC followed by "-" and "_" (64 characters).
KOVA_PLATFORM_EXPORT extern char const* const POOL_URL_FRIENDLY;

class KOVA_PLATFORM_EXPORT KOVARandomBase {
 public:
  virtual ~KOVARandomBase();
  // Writes exactly `length` characters drawn uniformly from `pool` into `out`. False (and
  // `out` unchanged) when the pool is empty or the kernel source fails.
  bool getString(std::string const& pool, std::size_t length, std::string& out);
  // A uniform integer in [low, high], both inclusive; `low` when the source fails or
  // high < low.
  int random(int low, int high);

 protected:
  // Fills `buf` with `n` random bytes; false on failure.
  virtual bool bytes(void* buf, std::size_t n) = 0;
};

class KOVA_PLATFORM_EXPORT KOVARandom : public KOVARandomBase {
 public:
  KOVARandom();
  ~KOVARandom() override;

 protected:
  bool bytes(void* buf, std::size_t n) override;
};

}  // namespace RANDOM
}  // namespace KOVA

#endif
