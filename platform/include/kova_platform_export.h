/* Export macro of the platform library: only the appliance's named calls are visible. */
#ifndef KOVA_PLATFORM_EXPORT_H
#define KOVA_PLATFORM_EXPORT_H
#define KOVA_PLATFORM_EXPORT __attribute__((visibility("default")))
#endif
