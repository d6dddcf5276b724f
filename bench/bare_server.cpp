// The floor under the development host's requests per second: the same HTTP
// library with the host's task queue and TCP_NODELAY, answering GET
// /webapi/entry with a fixed body and nothing else: no decoding, no module,
// no account service, no log. scripts/bench.sh gives it the host's own
// answer to a signed-in `query`, so both send the same bytes.
//
//   bare_server BODY_FILE [PORT]
//
// Prints the URL it serves once it listens (PORT 0 or none: any free port)
// and serves until it is killed.
#include <httplib.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "threads.h"

int main(int argc, char** argv) {
  if (argc < 2 || argc > 3) {
    (void)std::fprintf(stderr, "usage: bare_server BODY_FILE [PORT]\n");
    return 2;
  }
  std::ifstream in(argv[1], std::ios::binary);
  const std::string body((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (!in.good() && !in.eof()) {
    (void)std::fprintf(stderr, "bare_server: cannot read %s\n", argv[1]);
    return 2;
  }
  httplib::Server server;
  server.new_task_queue = [] { return new webapihost::Threads(); };
  server.set_tcp_nodelay(true);
  server.Get("/webapi/entry",
             [&body](const httplib::Request&, httplib::Response& res) { res.set_content(body, "application/json"); });
  const int wanted = argc == 3 ? std::atoi(argv[2]) : 0;
  const int port = wanted == 0                                ? server.bind_to_any_port("127.0.0.1")
                   : server.bind_to_port("127.0.0.1", wanted) ? wanted
                                                              : -1;
  if (port <= 0) {
    (void)std::fprintf(stderr, "bare_server: cannot listen on 127.0.0.1:%s\n", argc == 3 ? argv[2] : "0");
    return 1;
  }
  (void)std::printf("bare_server: serving at http://127.0.0.1:%d/webapi/entry\n", port);
  (void)std::fflush(stdout);
  return server.listen_after_bind() ? 0 : 1;
}
