#include "process.h"

#include <dirent.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

namespace pellixtest {
namespace {

void Slurp(FILE* file, std::string* out) {
  char buffer[4096];
  size_t n;
  while ((n = std::fread(buffer, 1, sizeof(buffer), file)) > 0) out->append(buffer, n);
}

std::string Proc(pid_t pid) { return pid ? "/proc/" + std::to_string(pid) : std::string("/proc/self"); }

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

long StatusKiB(const char* field, pid_t pid) {
  std::ifstream status(Proc(pid) + "/status");
  std::string line;
  while (std::getline(status, line))
    if (line.rfind(field, 0) == 0) return std::stol(line.substr(std::strlen(field)));
  return -1;
}

int OpenDescriptors(pid_t pid) {
  DIR* dir = opendir((Proc(pid) + "/fd").c_str());
  if (!dir) return -1;
  int n = 0;
  while (const dirent* entry = readdir(dir))
    if (entry->d_name[0] != '.') ++n;
  closedir(dir);
  return pid ? n : n - 1;  // our own count includes the directory being read
}

}  // namespace pellixtest
