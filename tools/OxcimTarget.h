// Where oxcim connects to, how it asks for a password, and how it words a failure.
#pragma once

#include <oxCIM.h>

#include <string>

namespace oxcli {

struct Target {
  std::string protocol = "http", host, port, user, ns;
};

// http[s]://[user@]host[:port][/namespace]; the parts the URL leaves out stay as they are.
bool ParseUrl(const std::string& url, Target& target, std::string& error);

// Reads a line from the terminal with echo off; false when there is no terminal.
bool PromptPassword(const std::string& prompt, std::string& password);

// Keeps the reasons the library traces with each status it records (the library keeps
// only the code), and passes the records of the levels in userMask on to stderr.
void CaptureStatus(unsigned long userMask);
void ClearReasons();

// One line (no "oxcim: " in front, no newline) naming the failure of the last operation:
// the CIM status in words and number, or what went wrong with the transport.
std::string FailureText(const oxCIM::CIMcontainer& c);

}  // namespace oxcli
