// The simulator as the command-line client embeds it: the built-in storage model (or a
// repository, SimRepository.h) served over plain HTTP on 127.0.0.1, an ephemeral port, by
// the simulator's server core.
#pragma once

#include <memory>
#include <string>

#include "CimServer.h"
#include "SimRepository.h"
#include "Snapshot.h"

namespace oxcimtool {

using oxsim::Attr;
using oxsim::AttrId;
using oxsim::ElemId;
using oxsim::IsInside;
using oxsim::IsKind;
using oxsim::SameNoCase;

class CimSimulator {
 public:
  CimSimulator(std::string user, std::string password,
               oxsim::SimRepository repository = oxsim::SimRepository::BuiltIn()) {
    oxsim::CimServerOptions o;
    o.user = std::move(user);
    o.password = std::move(password);
    m_Server = std::make_unique<oxsim::CimServer>(o, std::move(repository));
  }
  // Any address, port, TLS files and limits (CimServer.h).
  CimSimulator(const oxsim::CimServerOptions& options, oxsim::SimRepository repository)
      : m_Server(std::make_unique<oxsim::CimServer>(options, std::move(repository))) {}

  // Binds (by default an ephemeral port on 127.0.0.1) and serves; false with a reason.
  bool Start(std::string& error) { return m_Server->start(error); }
  void Stop() { m_Server->stop(); }
  int Port() const { return m_Server->port(); }
  oxsim::CimServer& Server() { return *m_Server; }

 private:
  std::unique_ptr<oxsim::CimServer> m_Server;
};

}  // namespace oxcimtool
