// The packet filter of a live capture: a tcpdump filter expression that the
// kernel applies, so that only the mail traffic is copied up to the program.
#pragma once

#include <string>

struct pcap;

namespace pelka {

// Whether the expression compiles, checked against Ethernet before any
// interface is opened: "" when it does (or is empty), else what is wrong.
std::string CheckFilterExpression(const std::string& expression);

// Compiles the expression for the opened capture and sets it. An empty
// expression sets nothing. False with *error set when it fails.
bool ApplyFilter(pcap* handle, const std::string& expression, std::string* error);

}  // namespace pelka
