# The SQLite underneath the platform's database layer.
#
# Releases before 3.51.3 can corrupt a write-ahead-log database when several processes write
# and checkpoint it at the same time, which is exactly how the appliance's CGI programs use
# the sharing database; the distribution's SQLite is older. So the build compiles a pinned
# amalgamation into the platform library. It comes from the npm registry (the one source this
# project's machines reach that carries a fixed release), checked against pinned checksums,
# and is cached outside git in .deps/ so that every build directory of a checkout shares one
# download. KOVA_SYSTEM_SQLITE=ON uses the distribution's library instead.
#
# Defines the target kova_sqlite3 (the library to link) and KOVA_SQLITE_FOR_CLIENTS, what a
# library built on the platform library needs besides it for the few SQLite calls it makes
# itself (nothing when the platform library carries SQLite).

option(KOVA_SYSTEM_SQLITE "Use the distribution's SQLite instead of the pinned amalgamation" OFF)

set(KOVA_SQLITE_VERSION 3.54.1)
set(KOVA_SQLITE_PACKAGE better-sqlite3@13.2.0)
# sha512 of the package tarball (its registry integrity, in hex) and sha256 of the two files.
set(KOVA_SQLITE_PACKAGE_SHA512 67c43ff71fee3722b1035bf814da1dc88b51551c354de281ae68f7d89871851d1c78d70163ec0ca1bb7f06fecced3cf03c05e39d946d35a12c0139d465229665)
set(KOVA_SQLITE_C_SHA256 75a4760a7b9727a4c4c877aec92eacf39e52a8f2921ce00bd33be6d3a8e8e254)
set(KOVA_SQLITE_H_SHA256 d6c84557261893439b341d2e6c35187ae3ea24fbfd843ad94616f72d89242b8c)
set(KOVA_SQLITE_CACHE "${CMAKE_CURRENT_SOURCE_DIR}/.deps" CACHE PATH
  "Where the pinned SQLite amalgamation is kept (shared by all build directories)")
set(KOVA_SQLITE_TARBALL "" CACHE FILEPATH
  "A local copy of the package tarball to use instead of fetching it (checked all the same)")

if(KOVA_SYSTEM_SQLITE)
  find_package(SQLite3 REQUIRED)
  add_library(kova_sqlite3 INTERFACE)
  target_link_libraries(kova_sqlite3 INTERFACE SQLite::SQLite3)
  set(KOVA_SQLITE_FOR_CLIENTS SQLite::SQLite3)
  set(KOVA_SQLITE_EXPECTED_VERSION "")
  message(STATUS "SQLite: the system's ${SQLite3_VERSION}")
  return()
endif()

function(kova_sqlite_check file expected what)
  file(SHA256 "${file}" actual)
  if(NOT actual STREQUAL expected)
    message(FATAL_ERROR "SQLite: checksum mismatch for ${what} (${file}): sha256 ${actual}, "
      "expected ${expected}. Refusing to build with it; delete the file to fetch it again.")
  endif()
endfunction()

set(KOVA_SQLITE_DIR "${KOVA_SQLITE_CACHE}/sqlite-${KOVA_SQLITE_VERSION}")
# Several build directories may configure at once: one fetches, the others wait.
file(MAKE_DIRECTORY "${KOVA_SQLITE_CACHE}")
file(LOCK "${KOVA_SQLITE_CACHE}/.lock" GUARD FILE TIMEOUT 600)
if(NOT EXISTS "${KOVA_SQLITE_DIR}/sqlite3.c" OR NOT EXISTS "${KOVA_SQLITE_DIR}/sqlite3.h")
  string(RANDOM LENGTH 8 kova_tag)
  set(kova_work "${KOVA_SQLITE_CACHE}/fetch-${kova_tag}")
  file(REMOVE_RECURSE "${kova_work}")
  file(MAKE_DIRECTORY "${kova_work}")
  if(KOVA_SQLITE_TARBALL)
    set(kova_tarball "${KOVA_SQLITE_TARBALL}")
  else()
    find_program(KOVA_NPM npm)
    if(NOT KOVA_NPM)
      message(FATAL_ERROR "SQLite: npm is needed to fetch ${KOVA_SQLITE_PACKAGE}: install it "
        "(apt-get install npm; scripts/test and scripts/demo install it themselves), or set "
        "KOVA_SQLITE_TARBALL to a copy of the package, or KOVA_SYSTEM_SQLITE=ON")
    endif()
    message(STATUS "SQLite: fetching ${KOVA_SQLITE_PACKAGE}")
    # One quick retry instead of npm's default backoff (about 70 s before a failure shows);
    # errors are logged, the notices (the tarball's file list) are not.
    execute_process(COMMAND "${KOVA_NPM}" pack "${KOVA_SQLITE_PACKAGE}" --loglevel=error
        --fetch-retries=1 --fetch-retry-mintimeout=1000 --fetch-retry-maxtimeout=3000
        --fetch-timeout=60000 --pack-destination "${kova_work}"
      WORKING_DIRECTORY "${kova_work}" RESULT_VARIABLE kova_rc OUTPUT_QUIET ERROR_VARIABLE kova_err)
    file(GLOB kova_tarball "${kova_work}/*.tgz")
    if(NOT kova_rc EQUAL 0 OR NOT kova_tarball)
      file(REMOVE_RECURSE "${kova_work}")
      string(STRIP "${kova_err}" kova_err)
      if(kova_err STREQUAL "")
        set(kova_err "(npm printed no reason)")
      endif()
      message(FATAL_ERROR "SQLite: npm pack ${KOVA_SQLITE_PACKAGE} failed (${kova_rc}):\n"
        "${kova_err}\n"
        "This machine must reach the npm registry (npm config get registry; behind a proxy "
        "set npm's proxy settings, and where the network re-signs TLS give npm the signing "
        "certificate: npm config set cafile FILE, or install it into the system's "
        "certificates). Otherwise fetch the package elsewhere (npm pack ${KOVA_SQLITE_PACKAGE}) "
        "and configure with -DKOVA_SQLITE_TARBALL=<that .tgz>, or use the distribution's "
        "SQLite with -DKOVA_SYSTEM_SQLITE=ON.")
    endif()
  endif()
  file(SHA512 "${kova_tarball}" kova_actual)
  if(NOT kova_actual STREQUAL KOVA_SQLITE_PACKAGE_SHA512)
    file(REMOVE_RECURSE "${kova_work}")
    message(FATAL_ERROR "SQLite: checksum mismatch for ${kova_tarball}: sha512 ${kova_actual}, expected "
      "${KOVA_SQLITE_PACKAGE_SHA512}. Refusing to build with it.")
  endif()
  file(ARCHIVE_EXTRACT INPUT "${kova_tarball}" DESTINATION "${kova_work}/x"
    PATTERNS package/deps/sqlite3/sqlite3.c package/deps/sqlite3/sqlite3.h)
  kova_sqlite_check("${kova_work}/x/package/deps/sqlite3/sqlite3.c" ${KOVA_SQLITE_C_SHA256} sqlite3.c)
  kova_sqlite_check("${kova_work}/x/package/deps/sqlite3/sqlite3.h" ${KOVA_SQLITE_H_SHA256} sqlite3.h)
  file(REMOVE_RECURSE "${KOVA_SQLITE_DIR}")
  file(RENAME "${kova_work}/x/package/deps/sqlite3" "${KOVA_SQLITE_DIR}")
  file(REMOVE_RECURSE "${kova_work}")
endif()
file(LOCK "${KOVA_SQLITE_CACHE}/.lock" RELEASE)
# Checked on every configure, not only after a fetch: the cache is outside version control.
kova_sqlite_check("${KOVA_SQLITE_DIR}/sqlite3.c" ${KOVA_SQLITE_C_SHA256} sqlite3.c)
kova_sqlite_check("${KOVA_SQLITE_DIR}/sqlite3.h" ${KOVA_SQLITE_H_SHA256} sqlite3.h)
message(STATUS "SQLite: pinned amalgamation ${KOVA_SQLITE_VERSION} from ${KOVA_SQLITE_DIR}")

# Position-independent, linked into the platform library: no libsqlite3.so at run time. The
# platform library exports the SQLite API so that the sharing library's own calls (the last
# insert id) reach the same copy.
add_library(kova_sqlite3 STATIC "${KOVA_SQLITE_DIR}/sqlite3.c")
set_target_properties(kova_sqlite3 PROPERTIES POSITION_INDEPENDENT_CODE ON C_STANDARD 99)
target_include_directories(kova_sqlite3 SYSTEM PUBLIC "$<BUILD_INTERFACE:${KOVA_SQLITE_DIR}>")
target_compile_definitions(kova_sqlite3 PRIVATE
  # Nothing loads code into a process that switches its identity for database work.
  SQLITE_OMIT_LOAD_EXTENSION
  # No process-wide mutex around every allocation for statistics nobody reads.
  SQLITE_DEFAULT_MEMSTATUS=0
  # Sync file data (and the size, when it changed) without the other inode fields, as the
  # distribution's build does.
  HAVE_FDATASYNC=1)
# Third-party code: optimised in every build type, neither warned about nor sanitised (the
# sanitizer flags are added after this file; the sanitizer runtime still watches its heap).
target_compile_options(kova_sqlite3 PRIVATE -O2 -w)
find_package(Threads REQUIRED)
target_link_libraries(kova_sqlite3 PUBLIC Threads::Threads m)
set(KOVA_SQLITE_FOR_CLIENTS "")
set(KOVA_SQLITE_EXPECTED_VERSION ${KOVA_SQLITE_VERSION})
