// Where halvarine-fetch writes and how it finishes a recording, without a
// worker: real files and links in a private directory, and the committed
// sample's header and packets. Devices, FIFOs and what a failed fetch
// keeps are run end to end (runs.tsv).

#include "tools/fetch/output.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/support/support.h"
#include "tools/asf/asf_file.h"
#include "tools/asf/asf_stream.h"

namespace {

const volatile sig_atomic_t NO_STOP = 0;

bool isLink(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

// A file cut at `packets` packets of the sample, with its header rewritten.
std::string recording(std::string header, size_t from, size_t packets) {
  const AsfFile& sample = support::sampleAsf();
  EXPECT_TRUE(finishRecordingHeader(header, packets, sample.packets.at(from),
                                    sample.packets.at(from + packets - 1)));
  for (size_t i = 0; i < packets; ++i) header += sample.packets[from + i];
  return header;
}

// Recordings of all the sample's packets, halves of it and less, from its
// own header (written by its encoder) and from a broadcast's.
TEST(RecordingHeader, SaysWhatTheRecordingHolds) {
  const AsfFile& sample = support::sampleAsf();
  std::string live = sample.header;
  ASSERT_TRUE(markBroadcast(live));
  const size_t n = sample.packets.size();
  struct Case {
    const char* name;
    const std::string& header;
    size_t from, packets;
  } cases[] = {{"all the packets", sample.header, 0, n},
               {"all of a broadcast", live, 0, n},
               {"the first half", sample.header, 0, n / 2},
               {"the second half", sample.header, n / 2, n - n / 2},
               {"one packet", sample.header, 3, 1},
               {"a broadcast joined late", live, n / 3, n / 3}};
  std::vector<uint64_t> lengths;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    AsfFile rec;
    std::string error;
    ASSERT_TRUE(parseAsf(recording(c.header, c.from, c.packets), rec, error)) << error;
    EXPECT_EQ(std::vector<std::string>(sample.packets.begin() + c.from,
                                       sample.packets.begin() + c.from + c.packets),
              rec.packets);
    // (The sample's own file size counts an index after the packets.)
    EXPECT_EQ(rec.header.size() + c.packets * rec.packetSize, rec.fileSize);
    EXPECT_FALSE(rec.broadcast);
    // The preroll stays between the two durations, as in the sample.
    EXPECT_EQ(sample.playDuration100ns - sample.sendDuration100ns,
              rec.playDuration100ns - rec.sendDuration100ns);
    EXPECT_GT(rec.sendDuration100ns, 0u);
    lengths.push_back(rec.sendDuration100ns);
  }
  // All of it within the last frame's length, which packets' send times do
  // not count (0.056 s in the sample); the two halves cover the whole but
  // for the gap between them.
  EXPECT_NEAR(sample.sendDuration100ns, lengths[0], 1000000);
  EXPECT_EQ(lengths[0], lengths[1]);
  EXPECT_LE(lengths[2] + lengths[3], lengths[0]);
  EXPECT_GT(lengths[2] + lengths[3], lengths[0] * 9 / 10);

  // Packets whose times cannot be read count for no time; the sizes still
  // tell the truth.
  std::string header = sample.header;
  ASSERT_TRUE(finishRecordingHeader(header, 2, "", ""));
  AsfFile rec;
  std::string error;
  ASSERT_TRUE(parseAsf(header + std::string(2 * sample.packetSize, '\0'), rec, error)) << error;
  EXPECT_EQ(0u, rec.sendDuration100ns);
  EXPECT_EQ(header.size() + 2 * sample.packetSize, rec.fileSize);
}

// ---- Output

// The directory as `setup` (shell commands run in it) leaves it; -o f.
struct Layout {
  const char* name;
  const char* setup;
  bool opens;                      // else refused, nothing touched
  std::string target;              // the file that gets the stream after commit
  std::vector<std::string> links;  // still links afterwards
};

TEST(Output, WritesWhereTheLinksLeadAndReplacesNoLink) {
  const Layout layouts[] = {
      {"a new name", "", true, "f", {}},
      {"an older file", "echo old >f; chmod 600 f", true, "f", {}},
      {"a link to nothing yet", "ln -s t f", true, "t", {"f"}},
      {"links through a directory",
       "mkdir sub; ln -s sub/l f; ln -s ../t sub/l",
       true,
       "t",
       {"f", "sub/l"}},
      {"links in a loop", "ln -s g f; ln -s f g", false, "", {"f", "g"}},
      {"FILE.partial a link elsewhere",
       "echo 'not ours' >t; ln -s t f.partial",
       false,
       "",
       {"f.partial"}},
  };
  const std::string stream = support::sampleAsf().header;
  for (const Layout& l : layouts) {
    support::TempDir dir;
    ASSERT_TRUE(halvarine::runProgram(
                    {"sh", "-ec", "cd \"$0\"; " + std::string(l.setup), dir.path()}, 10000)
                    .succeeded())
        << l.name;
    {
      fetch::Output out;
      ASSERT_EQ(l.opens, out.open(dir.file("f"))) << l.name << ": " << out.error();
      if (l.opens) {
        // Named as given when no link was followed.
        EXPECT_EQ((l.links.empty() ? dir.file("f") : dir.file(l.target)) + ".partial",
                  out.partialPath())
            << l.name;
        ASSERT_TRUE(out.write(stream, &NO_STOP)) << l.name;
        ASSERT_TRUE(out.commit()) << l.name << ": " << out.error();
      }
    }
    if (l.opens) {
      EXPECT_EQ(stream, support::readFile(dir.file(l.target))) << l.name;
      struct stat st;
      ASSERT_EQ(0, stat(dir.file(l.target).c_str(), &st));
      // A new file as the umask has it; a replaced one as it was.
      const mode_t mask = umask(0);
      umask(mask);
      EXPECT_EQ(l.name == std::string("an older file") ? 0600u : 0644u & ~mask, st.st_mode & 0777u)
          << l.name;
      EXPECT_FALSE(support::fileExists(dir.file(l.target) + ".partial")) << l.name;
    }
    for (const std::string& name : l.links) EXPECT_TRUE(isLink(dir.file(name))) << l.name;
    if (support::fileExists(dir.file("t")) && !l.opens) {
      EXPECT_EQ("not ours\n", support::readFile(dir.file("t"))) << l.name;
    }
  }
}

}  // namespace
