// Relay daemon configuration, read-only.
#pragma once

#include <string>

namespace TALV {
namespace Relay {

// The account-service section of the relay daemon's configuration.
class PellixConf {
 public:
  PellixConf();
  ~PellixConf();
  // The account service's host name; empty when none is set.
  std::string GetHost() const;

 private:
  friend class RelaydConf;
  std::string host_;
};

// The relay daemon's configuration, loaded from one file when constructed. A
// file that cannot be read gives a configuration with nothing set.
class RelaydConf {
 public:
  explicit RelaydConf(const char* path);
  ~RelaydConf();
  RelaydConf(const RelaydConf&) = delete;
  RelaydConf& operator=(const RelaydConf&) = delete;

  const PellixConf& GetPellixConf() const;

 private:
  PellixConf pellix_;
};

}  // namespace Relay
}  // namespace TALV
