#include "serve.h"

namespace webapihost {

int Demo(const std::string&, const std::string&, FILE* out) {
  std::fprintf(out, "demo: not yet\n");
  return 1;
}

}  // namespace webapihost
