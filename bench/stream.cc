// What the parts share: the servers of one generated stream and a whole
// fetch of it.

#include <stdexcept>

#include "bench/parts.h"

namespace bench {

const StreamProtocol PROTOCOLS[2] = {StreamProtocol::MMSH, StreamProtocol::MMST};

std::string protocolName(StreamProtocol p) {
  return p == StreamProtocol::MMSH ? "MMSH" : "MMST";
}

void die(const std::string& what) {
  throw std::runtime_error(what);
}

Servers::Servers(uint64_t bytes, uint32_t packetSize) {
  std::string error;
  if (!parseAsf(generateAsf(bytes, packetSize), file, error)) die("generated stream: " + error);
  streamBytes = file.header.size() + uint64_t(file.packets.size()) * file.packetSize;
  mmsserver::ServerOptions o;
  o.protocol = StreamProtocol::MMSH;
  mmsh.reset(new mmsserver::MmsTestServer(file, o));
  o.protocol = StreamProtocol::MMST;
  mmst.reset(new mmsserver::MmsTestServer(file, o));
  if (!mmsh->start(error) || !mmst->start(error)) die("test server: " + error);
}

std::string Servers::url(StreamProtocol p) const {
  return (p == StreamProtocol::MMSH ? mmsh : mmst)->url("generated.asf");
}

FetchRun fetch(const Contender& c, const Programs& programs, const Servers& servers,
               StreamProtocol p, int count, const Launcher& launcher) {
  FetchRun run;
  std::string error;
  const std::string url = servers.url(p);
  if (!(c.worker.empty()
            ? fetchWithLibmms(programs, url, count, launcher, run, error)
            : fetchThroughWorker(c.worker, url, count, c.window, launcher, run, error)))
    die(c.name + " " + protocolName(p) + ": " + error);
  if (run.bytes != servers.streamBytes)
    die(c.name + " delivered " + std::to_string(run.bytes) + " bytes, not " +
        std::to_string(servers.streamBytes));
  return run;
}

std::string readsText(const Settings& s) {
  return "READ count " + std::to_string(s.counts.back()) + ", window " + std::to_string(s.window);
}

}  // namespace bench
