/* The appliance's log lines: error priority in the system log, beginning with the source
 * file's base name and the line ("<source>:<line> ...", most with the process id after it).
 * Every line of the libraries and programs is written through these, so that the prefix is
 * spelled once. The line is an argument: some log lines carry a fixed number that log readers
 * match on, the others pass __LINE__. */
#ifndef KOVA_LOG_H
#define KOVA_LOG_H

#include <syslog.h>
#include <unistd.h>

/* "<source>:<line> <message>" */
#define KOVA_LOG(source, line, fmt, ...) \
  syslog(LOG_ERR, "%s:%d " fmt, (source), (line), ##__VA_ARGS__)

/* "<source>:<line> (<process id>) <message>" */
#define KOVA_LOG_PID(source, line, fmt, ...) \
  syslog(LOG_ERR, "%s:%d (%u) " fmt, (source), (line), (unsigned)getpid(), ##__VA_ARGS__)

/* A failed internal condition, logged with its own source text, makes the function return
 * false. */
#define KOVA_FAIL_IF(source, line, cond)                                \
  do {                                                                  \
    if (cond) {                                                         \
      KOVA_LOG_PID((source), (line), "Failed [%s], err=%m\n\n", #cond); \
      return false;                                                     \
    }                                                                   \
  } while (0)

#endif
