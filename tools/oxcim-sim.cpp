// oxcim-sim: the CIM server simulator on its own, for clients under development.
#include <signal.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "CimServer.h"
#include "SimRepository.h"

namespace {

const char kUsage[] =
    "usage: oxcim-sim [options]\n"
    "  --port N              TCP port (default 5988, 5989 with --https; 0: any free port)\n"
    "  --address A           address to listen on (default 127.0.0.1)\n"
    "  --user U --password P credentials for Basic authentication (default admin/secret)\n"
    "  --no-auth             accept every request without credentials\n"
    "  --https CERT KEY      serve HTTPS with this PEM certificate and key\n"
    "  --client-ca FILE      with --https: demand a client certificate signed by FILE\n"
    "  --repository DIR      serve the classes and instances saved in DIR (a snapshot)\n"
    "                        instead of the built-in storage array\n"
    "  --fault RULE          inject a fault; repeatable. RULE is KIND[:ARG][@OPERATION][/N]:\n"
    "                        delay:MS drip:MS close http500 http401 garbage cim-error:CODE,\n"
    "                        only for requests of OPERATION, on every Nth of them\n"
    "  --threads N           requests served at the same time (default 8)\n"
    "  --alert-every S       export a CIM_AlertIndication every S seconds\n"
    "  --seconds S           stop after S seconds (default: run until interrupted)\n";

bool Number(const char* text, long lo, long hi, long& out) {
  char* end = nullptr;
  errno = 0;
  out = std::strtol(text, &end, 10);
  return end != text && *end == '\0' && errno == 0 && out >= lo && out <= hi;
}

}  // namespace

int main(int argc, char** argv) {
  oxsim::CimServerOptions opt;
  opt.http.port = -1;
  std::string repository;
  std::vector<oxsim::Fault> faults;
  long alertEvery = 0, seconds = 0;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    auto more = [&](int n) {
      if (i + n >= argc) {
        std::fprintf(stderr, "oxcim-sim: %s needs %d argument(s)\n%s", a.c_str(), n, kUsage);
        std::exit(2);
      }
    };
    long n = 0;
    if (a == "--help" || a == "-h") {
      std::fputs(kUsage, stdout);
      return 0;
    } else if (a == "--port") {
      more(1);
      if (!Number(argv[++i], 0, 65535, n)) return std::fprintf(stderr, "oxcim-sim: bad port\n"), 2;
      opt.http.port = static_cast<int>(n);
    } else if (a == "--address") {
      more(1);
      opt.http.address = argv[++i];
    } else if (a == "--user") {
      more(1);
      opt.user = argv[++i];
    } else if (a == "--password") {
      more(1);
      opt.password = argv[++i];
    } else if (a == "--no-auth") {
      opt.user.clear();
    } else if (a == "--https") {
      more(2);
      opt.http.certFile = argv[++i];
      opt.http.keyFile = argv[++i];
    } else if (a == "--client-ca") {
      more(1);
      opt.http.clientCaFile = argv[++i];
    } else if (a == "--repository") {
      more(1);
      repository = argv[++i];
    } else if (a == "--fault") {
      more(1);
      oxsim::Fault f;
      std::string error;
      if (!oxsim::ParseFault(argv[++i], f, error))
        return std::fprintf(stderr, "oxcim-sim: %s\n", error.c_str()), 2;
      faults.push_back(f);
    } else if (a == "--threads") {
      more(1);
      if (!Number(argv[++i], 1, 256, n))
        return std::fprintf(stderr, "oxcim-sim: bad thread count\n"), 2;
      opt.http.threads = static_cast<int>(n);
    } else if (a == "--alert-every") {
      more(1);
      if (!Number(argv[++i], 1, 86400, alertEvery))
        return std::fprintf(stderr, "oxcim-sim: bad interval\n"), 2;
    } else if (a == "--seconds") {
      more(1);
      if (!Number(argv[++i], 1, 31536000, seconds))
        return std::fprintf(stderr, "oxcim-sim: bad duration\n"), 2;
    } else {
      std::fprintf(stderr, "oxcim-sim: unknown option %s\n%s", a.c_str(), kUsage);
      return 2;
    }
  }
  if (opt.http.port < 0) opt.http.port = opt.http.certFile.empty() ? 5988 : 5989;

  oxsim::SimRepository repo = oxsim::SimRepository::BuiltIn();
  if (!repository.empty()) {
    std::string error;
    if (!oxsim::LoadRepository(repository, repo, error))
      return std::fprintf(stderr, "oxcim-sim: %s\n", error.c_str()), 1;
  }

  // Signals are taken by sigtimedwait below, never by a handler.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  sigaddset(&stopSignals, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  oxsim::CimServer server(opt, std::move(repo));
  for (const oxsim::Fault& f : faults) server.addFault(f);
  std::string error;
  if (!server.start(error)) return std::fprintf(stderr, "oxcim-sim: %s\n", error.c_str()), 1;
  std::printf("listening on %s port %d (%s)\n", opt.http.address.c_str(), server.port(),
              server.tls() ? "https" : "http");
  std::fflush(stdout);

  const auto begin = std::chrono::steady_clock::now();
  long lastAlert = 0;
  for (;;) {
    timespec tick{1, 0};
    const int sig = sigtimedwait(&stopSignals, nullptr, &tick);
    if (sig == SIGINT || sig == SIGTERM) break;
    const long elapsed = static_cast<long>(
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - begin)
            .count());
    if (alertEvery > 0 && elapsed / alertEvery > lastAlert) {
      lastAlert = elapsed / alertEvery;
      server.raiseAlert("periodic alert " + std::to_string(lastAlert), 2);
    }
    if (seconds > 0 && elapsed >= seconds) break;
  }
  server.stop();
  std::printf("stopped after %zu requests\n", server.requestCount());
  return 0;
}
