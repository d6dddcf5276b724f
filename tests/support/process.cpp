#include "process.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace pellixtest {
namespace {

void Slurp(FILE* file, std::string* out) {
  char buffer[4096];
  size_t n;
  while ((n = std::fread(buffer, 1, sizeof(buffer), file)) > 0) out->append(buffer, n);
}

}  // namespace

int RunCommand(const std::string& command, std::string* out, std::string* err) {
  char errPath[] = "/tmp/pellix-test-stderr-XXXXXX";
  int fd = mkstemp(errPath);
  if (fd < 0) return -1;
  close(fd);
  FILE* pipe = popen((command + " 2>" + errPath).c_str(), "r");
  if (!pipe) {
    unlink(errPath);
    return -1;
  }
  Slurp(pipe, out);
  int status = pclose(pipe);
  if (err) {
    if (FILE* file = std::fopen(errPath, "r")) {
      Slurp(file, err);
      std::fclose(file);
    }
  }
  unlink(errPath);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

long StatusKiB(const char* field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.rfind(field, 0) == 0) return std::stol(line.substr(std::strlen(field)));
  return -1;
}

}  // namespace pellixtest
