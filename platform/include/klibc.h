/* System helpers of the appliance: files and helper programs. */
#ifndef KLIBC_H
#define KLIBC_H

#include <stdio.h>
#include <sys/stat.h>

#include "kova_platform_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Nonzero when `path` exists. */
KOVA_PLATFORM_EXPORT int KLIBCFileExist(const char* path);
/* Creates an empty file if missing; -1 on failure, 0 on success. */
KOVA_PLATFORM_EXPORT int KLIBCFileTouch(const char* path);
/* Fills `st` for `path` (`follow` nonzero: follow a symbolic link); nonzero on failure. */
KOVA_PLATFORM_EXPORT int KLIBCFileStat(const char* path, int follow, struct stat* st);
/* Sets the permission mode of `path`; `acl` -1 leaves access lists alone. -1 on failure. */
KOVA_PLATFORM_EXPORT int KOVAFSAclChmod(const char* path, int acl, unsigned int mode);

/* Starts `program` without a shell with the NULL-terminated arguments that follow `mode`
 * (argument 0 is the program path itself) and returns a stream on its standard output
 * (`mode` "r"), or NULL. */
KOVA_PLATFORM_EXPORT FILE* KLIBCPopen(const char* program, const char* mode, ...);
/* Same with an explicit argument vector; argv[0] is passed as given. */
KOVA_PLATFORM_EXPORT FILE* KLIBCPopenv(const char* program, const char* mode,
                                       const char* const argv[]);
/* Closes the stream, reaps the child and returns its wait status as pclose(3) does; -1 when
 * the stream was not opened by KLIBCPopen/KLIBCPopenv. */
KOVA_PLATFORM_EXPORT int KLIBCPclose(FILE* stream);

#ifdef __cplusplus
}
#endif

#endif
