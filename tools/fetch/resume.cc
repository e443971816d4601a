#include "tools/fetch/resume.h"

#include <errno.h>
#include <fcntl.h>
#include <halvarine/fd.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "tools/asf/asf_file.h"
#include "tools/asf/asf_stream.h"

namespace fetch {

void Digest::add(const char* p, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    hash_ ^= static_cast<unsigned char>(p[i]);
    hash_ *= 1099511628211ull;
  }
  bytes_ += n;
}

void ResumeCheck::startPass(uint64_t skip) {
  reread_ = Blocks();
  skip_ = skip;
  differs_ = false;
  confirmed_ = skip == 0;
}

void ResumeCheck::add(Blocks& to, const std::string& bytes) {
  for (size_t at = 0; at < bytes.size();) {
    const size_t n = static_cast<size_t>(
        std::min<uint64_t>(BLOCK - to.open.bytes(), static_cast<uint64_t>(bytes.size() - at)));
    to.open.add(bytes.data() + at, n);
    at += n;
    to.bytes += n;
    if (to.open.bytes() == BLOCK) {
      to.done.push_back(to.open);
      to.open = Digest();
    }
  }
}

bool ResumeCheck::skipped(const std::string& bytes) {
  const size_t before = reread_.done.size();
  add(reread_, bytes);
  // Each block completed must be the one written; once all that was to be
  // skipped has come, the last, incomplete one too.
  for (size_t i = before; i < reread_.done.size(); ++i) {
    if (i >= written_.done.size() || reread_.done[i] != written_.done[i]) {
      differs_ = true;
      differsFrom_ = i * BLOCK;
      return false;
    }
  }
  if (reread_.bytes < skip_) return true;
  if (reread_.bytes != written_.bytes || reread_.done.size() != written_.done.size() ||
      reread_.open != written_.open) {
    differs_ = true;
    differsFrom_ = reread_.done.size() * BLOCK;
    return false;
  }
  confirmed_ = true;
  return true;
}

bool sameStreamHeader(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  std::string x = a, y = b;
  // Clears exactly the fields a recording's finish rewrites, in both.
  if (!markBroadcast(x) || !markBroadcast(y)) return a == b;
  return x == y;
}

bool readEarlierFetch(const std::string& path, EarlierFetch& out, ResumeCheck& check,
                      std::string& error) {
  halvarine::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat st;
  if (!fd.valid() || fstat(fd.get(), &st) != 0) {
    error = "cannot read " + path + ": " + strerror(errno);
    return false;
  }
  out.fileBytes = static_cast<uint64_t>(st.st_size);
  std::string start(HEADER_OBJECT_FIXED_SIZE, '\0');
  const uint64_t length =
      pread(fd.get(), &start[0], start.size(), 0) == static_cast<ssize_t>(start.size())
          ? asfStreamHeaderLength(start)
          : 0;
  AsfStreamHeader parsed;
  if (length > 0 && length <= out.fileBytes && length <= (1u << 20)) {
    out.header.assign(static_cast<size_t>(length), '\0');
    if (pread(fd.get(), &out.header[0], out.header.size(), 0) !=
            static_cast<ssize_t>(out.header.size()) ||
        !readAsfStreamHeader(out.header, parsed, error)) {
      out.header.clear();
    }
  }
  if (out.header.empty() || parsed.packetSize == 0) {
    error = path + " does not begin with an ASF stream header" +
            (error.empty() ? std::string() : " (" + error + ")");
    return false;
  }
  out.packetSize = parsed.packetSize;
  const uint64_t data = out.fileBytes - out.header.size();
  out.dataBytes = data - data % out.packetSize;
  std::string buf(1 << 16, '\0');
  for (uint64_t at = 0; at < out.dataBytes;) {
    const size_t want = static_cast<size_t>(std::min<uint64_t>(buf.size(), out.dataBytes - at));
    const ssize_t n = pread(fd.get(), &buf[0], want, static_cast<off_t>(out.header.size() + at));
    if (n <= 0) {
      error = "cannot read " + path + ": " + (n < 0 ? strerror(errno) : "it got shorter");
      return false;
    }
    check.written(buf.substr(0, static_cast<size_t>(n)));
    at += static_cast<uint64_t>(n);
  }
  return true;
}

}  // namespace fetch
