// The CIM server of the simulator: the HTTP core (SimServer.h) answering CIM-XML operation
// requests from a repository (SimModel.h), with extrinsic methods, indication delivery
// and fault injection.
//
//   oxsim::CimServer server;                  // built-in storage model, admin/secret
//   std::string error;
//   if (!server.start(error)) ...             // 127.0.0.1, ephemeral port
//   ... point a client at server.port() ...
//   server.stop();
//
// Operations: GetClass, EnumerateClasses, EnumerateClassNames, CreateClass, ModifyClass,
// DeleteClass, GetInstance, EnumerateInstances, EnumerateInstanceNames, CreateInstance,
// ModifyInstance (the InstanceName inside VALUE.NAMEDINSTANCE, or DSP0200's
// ModifiedInstance parameter), DeleteInstance, ExecQuery ("select * from CLASS", WQL or
// DMTF:CQL), GetProperty, SetProperty. Others answer CIM_ERR_NOT_SUPPORTED. ModifyInstance
// changes the properties the modified instance carries (of those, the PropertyList's);
// EnumerateInstances and ExecQuery include subclasses; DeleteClass takes the subclasses and
// every instance along.
//
// Methods (METHODCALL): RequestStateChange (volumes, the system), GetStorageDeviceTree and
// RaiseAlert (the system), Reset (disks).
//
// Indications: instances of CIM_IndicationFilter, CIM_ListenerDestinationCIMXML and
// CIM_IndicationSubscription in root/interop subscribe a listener; creating, modifying or
// deleting any other instance exports CIM_InstCreation / CIM_InstModification /
// CIM_InstDeletion to every subscription whose filter takes it, raiseAlert() a
// CIM_AlertIndication. Delivery runs on a thread of its own, with bounded retries.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "SimModel.h"
#include "SimServer.h"

namespace oxsim {

// One injected failure. It applies to requests whose CIMMethod header equals operation
// (any request when empty) and fires on every everyNth of them.
struct Fault {
  enum class Kind {
    Delay,     // answer after delayMs
    Drip,      // answer in 64-byte chunks, delayMs before each
    Close,     // close the connection without an answer
    Http500,   // HTTP 500
    Http401,   // HTTP 401 with a Basic challenge
    Garbage,   // 200 with a body that is not CIM-XML
    CimError,  // 200 with ERROR CODE=cimCode
  };
  Kind kind = Kind::Delay;
  std::string operation;
  int everyNth = 1;
  int delayMs = 0;
  int cimCode = 1;
};

// "KIND[:ARG][@OPERATION][/N]", KIND one of delay:MS, drip:MS, close, http500, http401,
// garbage, cim-error:CODE. Examples: "delay:300", "cim-error:6@GetInstance", "close/3".
bool ParseFault(const std::string& text, Fault& fault, std::string& error);

struct CimServerOptions {
  HttpOptions http;            // address, port, TLS files, pool and limits
  std::string user = "admin";  // empty: no authentication
  std::string password = "secret";
  int deliveryAttempts = 3;          // per indication and destination
  int deliveryRetryMs = 200;         // pause between attempts
  int deliveryTimeoutMs = 2000;      // connect and answer, per attempt
  std::size_t deliveryQueue = 1024;  // exports waiting; more are dropped (counted failed)
};

class CimServer {
 public:
  explicit CimServer(CimServerOptions options = {},
                     SimRepository repository = SimRepository::BuiltIn());
  ~CimServer();  // stop()
  CimServer(const CimServer&) = delete;
  CimServer& operator=(const CimServer&) = delete;

  bool start(std::string& error);
  void stop();  // prompt; idempotent
  int port() const { return http_.port(); }
  bool tls() const { return http_.tls(); }

  void addFault(const Fault& fault);
  void clearFaults();

  // Exports a CIM_AlertIndication (Description = message, PerceivedSeverity = severity)
  // to every subscription that takes it; returns how many exports were queued.
  int raiseAlert(const std::string& message, int severity = 2);
  std::size_t indicationsDelivered() const;
  std::size_t indicationsFailed() const;
  // Waits until no export is queued or in flight; false on time-out.
  bool waitDeliveries(int timeoutMs) const;

  // One CIM-XML request body in, the CIM-XML answer out: no HTTP, no faults.
  std::string process(const std::string& body);
  // A copy of what the server holds now.
  SimRepository repository() const;
  std::size_t requestCount() const { return requests_.load(); }
  std::size_t connectionCount() const { return http_.connectionCount(); }

 private:
  struct Export {
    std::string host, path, body;
    int port = 0;
  };
  struct Faulty {
    Fault fault;
    unsigned long seen = 0;
  };

  std::shared_ptr<const CannedResponse> handle(const RecordedRequest& request);
  std::string answer(oxCIM::CIMelement& request);
  std::string intrinsic(oxCIM::CIMelement* call, const std::string& id);
  std::string extrinsic(oxCIM::CIMelement* call, const std::string& id);
  // Indications of the model's own changes; called with modelMu_ held.
  void lifecycle(const char* indicationClass, const std::string& ns, const SimClass& c,
                 const SimInstance& now, const SimInstance* before);
  int exportIndication(const std::string& indicationClass, const std::string& ns,
                       const std::string& sourceClass, const std::string& instanceXml);
  void deliveryLoop();
  bool deliver(const Export& e);

  CimServerOptions opt_;
  HttpServer http_;
  std::string authorization_;  // expected Authorization header

  mutable std::mutex modelMu_;
  SimRepository repo_;
  unsigned long nextName_ = 1;

  std::mutex faultMu_;
  std::vector<Faulty> faults_;
  std::atomic<std::size_t> requests_{0};

  mutable std::mutex exportMu_;
  mutable std::condition_variable exportCv_;
  std::deque<Export> exports_;
  bool delivering_ = false;
  bool stopping_ = false;
  std::size_t delivered_ = 0, failed_ = 0;
  unsigned long nextIndication_ = 1;
  std::thread deliveryThread_;
};

}  // namespace oxsim
