// Many proxies of one proxy string in one client, driven line by line from
// standard input, reporting which server each call reached:
//
//   call        one ping on every proxy; prints "<server address> <calls>"
//               per server, then "failed <n>", then "done"
//   run <ms>    pings round the proxies for that long; prints
//               "<server address> <calls>" and "failed <n>" for the calls of
//               the last round, "failed-total <n>", "failed-twice <n>"
//               (proxies with more than one failed call), "moved <n>" (proxies whose server changed),
//               "first-moved-ns <t>" (the wall-clock time of the first
//               successful call that reached a new server, 0 if none), "done"
//   quit
//
// Usage: spread_client <proxy-string> <proxies>
#include <chrono>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "tavix/client/proxy_object.h"
#include "tavix/core/text.h"
#include "tavix/runtime/communicator.h"

namespace {

using TAVIX::ProxyObject;
using TAVIX::SmartPtr;

struct Client {
  SmartPtr<ProxyObject> proxy;
  std::string server;  // where its last successful call went
  int failures = 0;
};

// Pings once; the server reached, or "" when the call failed.
std::string Ping(Client& client) {
  if (client.proxy->ObjectPing() != 0) {
    ++client.failures;
    return {};
  }
  std::u16string address;
  uint16_t port = 0;
  return client.proxy->ConnectedPeer(address, port) ? TAVIX::NarrowString(address) : "?";
}

int64_t WallClockNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

void PrintCounts(const std::map<std::string, int>& counts) {
  for (const auto& [server, n] : counts) {
    if (!server.empty()) std::printf("%s %d\n", server.c_str(), n);
  }
  std::printf("failed %d\n", counts.count("") != 0 ? counts.at("") : 0);
}

void Call(std::vector<Client>& clients) {
  std::map<std::string, int> counts;
  for (Client& client : clients) {
    const std::string server = Ping(client);
    ++counts[server];
    if (!server.empty()) client.server = server;
  }
  PrintCounts(counts);
}

void Run(std::vector<Client>& clients, int32_t ms) {
  for (Client& client : clients) client.failures = 0;
  std::vector<std::string> before;
  for (const Client& client : clients) before.push_back(client.server);
  int64_t firstMoved = 0;
  std::map<std::string, int> lastRound;
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (std::chrono::steady_clock::now() < end) {
    lastRound.clear();
    for (Client& client : clients) {
      const std::string server = Ping(client);
      ++lastRound[server];
      if (server.empty()) continue;
      if (firstMoved == 0 && server != client.server) firstMoved = WallClockNs();
      client.server = server;
    }
  }
  PrintCounts(lastRound);
  int total = 0, twice = 0, moved = 0;
  for (size_t i = 0; i < clients.size(); ++i) {
    total += clients[i].failures;
    twice += clients[i].failures > 1 ? 1 : 0;
    moved += clients[i].server != before[i] ? 1 : 0;
  }
  std::printf("failed-total %d\nfailed-twice %d\nmoved %d\nfirst-moved-ns %" PRId64 "\n", total, twice, moved,
              firstMoved);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: spread_client <proxy-string> <proxies>\n");
    return 2;
  }
  SmartPtr<TAVIX::Communicator> communicator = TAVIX::Initialize();
  std::vector<Client> clients(static_cast<size_t>(std::stoi(argv[2])));
  for (Client& client : clients) {
    client.proxy = TAVIX::CreateProxy(communicator, argv[1]);
    if (!client.proxy) {
      std::fprintf(stderr, "spread_client: bad proxy string %s\n", argv[1]);
      return 2;
    }
    client.proxy->AutoReconnect(true);
  }
  for (std::string line; std::getline(std::cin, line);) {
    std::istringstream words(line);
    std::string command;
    words >> command;
    if (command == "quit") break;
    if (command == "call") {
      Call(clients);
    } else if (int32_t ms = 0; command == "run" && words >> ms) {
      Run(clients, ms);
    } else {
      std::printf("unknown command %s\n", line.c_str());
    }
    std::printf("done\n");
    std::fflush(stdout);
  }
  clients.clear();
  communicator->Destroy();
  return 0;
}
