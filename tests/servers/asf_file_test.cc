// How the servers cut ASF files: the committed sample, damaged copies of it,
// and the generated stream, judged by ffprobe as an independent reader.

#include <gtest/gtest.h>

#include "tests/servers/interop_support.h"
#include "tools/mmsserver/asf_file.h"

namespace {

const std::string kDataObjectGuid(
    "\x36\x26\xb2\x75\x8e\x66\xcf\x11\xa6\xd9\x00\xaa\x00\x62\xce\x6c", 16);

void putLe32At(std::string& s, size_t at, uint32_t v) {
  std::string le;
  putLe32(le, v);
  s.replace(at, 4, le);
}

class SampleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    bytes_ = interop::readFile(interop::samplePath());
    std::string error;
    ASSERT_TRUE(parseAsf(bytes_, sample_, error)) << error;
    headerObjectSize_ = sample_.header.size() - 50;
  }
  // Offset of the File Properties' minimum packet size in the sample.
  size_t minPacketSizeAt() const {
    size_t fp = bytes_.find(std::string("\xa1\xdc\xab\x8c\x47\xa9\xcf\x11", 8));
    return fp + 92;
  }

  std::string bytes_;
  AsfFile sample_;
  size_t headerObjectSize_ = 0;
};

TEST_F(SampleTest, CutsIntoHeaderAndFixedSizePackets) {
  // The header runs to the end of the 50-byte Data Object header.
  EXPECT_EQ(sample_.header.compare(headerObjectSize_, 16, kDataObjectGuid), 0);
  EXPECT_EQ(sample_.packetSize, 3200u);
  uint64_t declared = getLe64(sample_.header, headerObjectSize_ + 40);
  EXPECT_EQ(sample_.packets.size(), declared);
  for (const std::string& p : sample_.packets) ASSERT_EQ(p.size(), sample_.packetSize);
  // The packets are the file's bytes in order; the index after them is not.
  std::string all = asfStreamBytes(sample_);
  ASSERT_LT(all.size(), bytes_.size());
  EXPECT_EQ(interop::firstDifference(all, bytes_.substr(0, all.size())), -1);
  EXPECT_EQ(sample_.fileSize, bytes_.size());
  EXPECT_EQ(sample_.fileId.size(), 16u);
  EXPECT_GT(sample_.playDuration100ns, 60000000u);  // the sample lasts about six seconds
}

TEST_F(SampleTest, RejectsDamagedFiles) {
  std::string error;
  AsfFile out;

  std::string badGuid = bytes_;
  badGuid[3] ^= 0x01;
  EXPECT_FALSE(parseAsf(badGuid, out, error));

  std::string variablePackets = bytes_;
  putLe32At(variablePackets, minPacketSizeAt(), sample_.packetSize - 1);
  EXPECT_FALSE(parseAsf(variablePackets, out, error));
  EXPECT_NE(error.find("fixed size"), std::string::npos) << error;

  std::string zeroPackets = bytes_;
  putLe32At(zeroPackets, minPacketSizeAt(), 0);
  putLe32At(zeroPackets, minPacketSizeAt() + 4, 0);
  EXPECT_FALSE(parseAsf(zeroPackets, out, error));

  std::string hugeHeader = bytes_;
  putLe32At(hugeHeader, 16, 0x7fffffff);
  EXPECT_FALSE(parseAsf(hugeHeader, out, error));

  std::string noDataObject = bytes_;
  noDataObject[headerObjectSize_] ^= 0x01;
  EXPECT_FALSE(parseAsf(noDataObject, out, error));

  // Cut anywhere before the first packet, the file is refused, not misread.
  for (size_t cut = 0; cut < sample_.header.size(); ++cut) {
    ASSERT_FALSE(parseAsf(bytes_.substr(0, cut), out, error)) << "cut at " << cut;
  }
  EXPECT_FALSE(loadAsfFile(interop::samplePath() + ".missing", out, error));
}

TEST_F(SampleTest, PadsAShortLastPacketWhenTheDataRunsToTheEnd) {
  // A file whose Data Object leaves size and count open (as a live capture
  // does) and whose bytes stop mid-packet.
  std::string cut = bytes_.substr(0, sample_.header.size() + 2 * sample_.packetSize + 100);
  std::string zero(8, '\0');
  cut.replace(headerObjectSize_ + 16, 8, zero);
  cut.replace(headerObjectSize_ + 40, 8, zero);
  AsfFile out;
  std::string error;
  ASSERT_TRUE(parseAsf(cut, out, error)) << error;
  ASSERT_EQ(out.packets.size(), 3u);
  EXPECT_EQ(out.packets[1], sample_.packets[1]);
  EXPECT_EQ(out.packets[2].size(), sample_.packetSize);
  EXPECT_EQ(out.packets[2].substr(0, 100), sample_.packets[2].substr(0, 100));
  EXPECT_EQ(out.packets[2].find_first_not_of('\0', 100), std::string::npos);
}

TEST(GeneratedAsf, IsDeterministicAndReadableByFfprobe) {
  const uint64_t wanted = 300000;
  std::string bytes = generateAsf(wanted, 4096);
  EXPECT_EQ(bytes, generateAsf(wanted, 4096));
  AsfFile file;
  std::string error;
  ASSERT_TRUE(parseAsf(bytes, file, error)) << error;
  EXPECT_EQ(file.packetSize, 4096u);
  EXPECT_EQ(asfStreamBytes(file), bytes);
  EXPECT_LE(bytes.size(), wanted);
  EXPECT_GT(bytes.size() + file.packetSize, wanted);
  EXPECT_EQ(file.fileSize, bytes.size());
  EXPECT_NE(file.packets[0], file.packets[1]);

  ASSERT_FALSE(interop::ffprobePath().empty());
  interop::TempDir dir;
  ASSERT_TRUE(interop::writeFile(dir.file("gen.asf"), bytes));
  interop::RunResult r = interop::run(
      {interop::ffprobePath(), "-v", "error", "-count_packets", "-show_entries",
       "stream=codec_name,nb_read_packets", "-of", "csv=p=0", dir.file("gen.asf")},
      30000);
  ASSERT_EQ(r.exitCode, 0) << r.output;
  EXPECT_EQ(r.output, "pcm_s16le," + std::to_string(file.packets.size()) + "\n");
}

}  // namespace
