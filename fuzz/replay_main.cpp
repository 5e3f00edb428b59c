// Runs a fuzz target over files instead of under the fuzzer: every file of the given
// directories (or the given files) once, in name order. The normal builds use it to replay
// the seed corpora and the inputs that once failed, as regression tests.
#include <dirent.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size);

int main(int argc, char** argv) {
  std::vector<std::string> files;
  for (int i = 1; i < argc; ++i) {
    struct stat st;
    if (stat(argv[i], &st) != 0) continue;  // a target without regressions has no folder
    if (!S_ISDIR(st.st_mode)) {
      files.push_back(argv[i]);
      continue;
    }
    std::vector<std::string> found;
    if (DIR* dir = opendir(argv[i])) {
      while (struct dirent* e = readdir(dir)) {
        if (e->d_name[0] != '.') found.push_back(std::string(argv[i]) + "/" + e->d_name);
      }
      closedir(dir);
    }
    std::sort(found.begin(), found.end());
    files.insert(files.end(), found.begin(), found.end());
  }
  uid_t const euid = geteuid();
  gid_t const egid = getegid();
  for (std::string const& name : files) {
    std::ifstream in(name, std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(reinterpret_cast<uint8_t const*>(bytes.data()), bytes.size());
    if (geteuid() != euid || getegid() != egid) {
      fprintf(stderr, "%s: identity changed\n", name.c_str());
      return 1;
    }
  }
  printf("%zu inputs replayed\n", files.size());
  return files.empty() ? 1 : 0;
}
