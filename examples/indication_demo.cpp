// Starts the indication listener on a free local port, posts one indication to it the way
// a CIM server does, and prints the acknowledgement and what the callback received.
#include <oxCIM.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

namespace {

std::atomic<int> received{0};
std::string lastBody;

int OnIndication(std::string& body) {
  lastBody = body;
  received.store(1);
  return 0;
}

int FreePort() {
  int s = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a);
  socklen_t len = sizeof a;
  getsockname(s, reinterpret_cast<sockaddr*>(&a), &len);
  close(s);
  return ntohs(a.sin_port);
}

std::string Post(int port, const std::string& body) {
  for (int attempt = 0; attempt < 50; ++attempt) {
    int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) {
      std::string req = "POST /cimlistener HTTP/1.1\r\nHost: localhost\r\n"
                        "Content-Type: application/xml; charset=\"utf-8\"\r\n"
                        "CIMExport: MethodRequest\r\nCIMExportMethod: ExportIndication\r\n"
                        "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
      send(s, req.data(), req.size(), 0);
      std::string reply;
      char buf[4096];
      ssize_t n;
      while ((n = recv(s, buf, sizeof buf, 0)) > 0) reply.append(buf, n);
      close(s);
      return reply;
    }
    close(s);  // the listener thread may not be listening yet
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return "(listener did not answer)";
}

}  // namespace

int main() {
  oxCIM::CIMindication listener;
  listener.m_Port = FreePort();
  listener.pCallBack = OnIndication;
  if (listener.start_Listener() != 0) {
    std::fprintf(stderr, "cannot start the listener\n");
    return 1;
  }
  const std::string indication =
      "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n"
      "<CIM CIMVERSION=\"2.0\" DTDVERSION=\"2.0\">\n<MESSAGE ID=\"4711\" PROTOCOLVERSION=\"1.0\">\n"
      "<SIMPLEEXPREQ>\n<EXPMETHODCALL NAME=\"ExportIndication\">\n"
      "<EXPPARAMVALUE NAME=\"NewIndication\">\n<INSTANCE CLASSNAME=\"CIM_AlertIndication\">\n"
      "<PROPERTY NAME=\"Description\" TYPE=\"string\"><VALUE>Disk 3 degraded</VALUE></PROPERTY>\n"
      "</INSTANCE>\n</EXPPARAMVALUE>\n</EXPMETHODCALL>\n</SIMPLEEXPREQ>\n</MESSAGE>\n</CIM>\n";
  std::printf("port %d\n--- acknowledgement\n%s", listener.m_Port,
              Post(listener.m_Port, indication).c_str());
  for (int i = 0; i < 200 && !received.load(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  listener.stop_Listener();

  oxCIM::CIMelement tree;
  if (!received.load() || tree.ParseCIMXML(lastBody) != 0) {
    std::fprintf(stderr, "indication not delivered\n");
    return 1;
  }
  std::printf("--- delivered: %s = %s\n", "Description", tree.getValueOfProperty("Description"));
  return 0;
}
