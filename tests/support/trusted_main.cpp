// main() of the test programs that talk HTTPS to the local service: the
// trusted namespace has to be entered while the process has one thread.
#include <gmock/gmock.h>

#include "support/https_server.h"

int main(int argc, char** argv) {
  pellixtest::EnterTrustedNamespace();
  ::testing::InitGoogleMock(&argc, argv);
  return RUN_ALL_TESTS();
}
