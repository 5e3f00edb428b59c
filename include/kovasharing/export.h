// Export macro: the library is built with hidden visibility, and only what carries this macro
// is part of its ABI.
#ifndef KOVASHARING_EXPORT_H
#define KOVASHARING_EXPORT_H

#define KOVA_EXPORT __attribute__((visibility("default")))

#endif
