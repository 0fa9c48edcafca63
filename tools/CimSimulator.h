// The simulator as the command-line client embeds it: the built-in storage model served
// over plain HTTP on 127.0.0.1 (ephemeral port) by the simulator's server core.
#pragma once

#include <memory>
#include <string>

#include "CimServer.h"

namespace oxcimtool {

using oxsim::Attr;
using oxsim::AttrId;
using oxsim::ElemId;
using oxsim::IsInside;
using oxsim::IsKind;
using oxsim::SameNoCase;

class CimSimulator {
 public:
  CimSimulator(std::string user, std::string password) {
    oxsim::CimServerOptions o;
    o.user = std::move(user);
    o.password = std::move(password);
    m_Server = std::make_unique<oxsim::CimServer>(o);
  }

  // Binds an ephemeral port on 127.0.0.1 and starts serving; false with a reason on failure.
  bool Start(std::string& error) { return m_Server->start(error); }
  void Stop() { m_Server->stop(); }
  int Port() const { return m_Server->port(); }
  oxsim::CimServer& Server() { return *m_Server; }

 private:
  std::unique_ptr<oxsim::CimServer> m_Server;
};

}  // namespace oxcimtool
