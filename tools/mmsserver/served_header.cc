// The header a test server sends under its faults: the file's own header with
// the objects that the hazard faults add.

#include "tools/asf/asf_file.h"
#include "tools/mmsserver/server.h"

namespace {

// The first stream number the extra streams of the extraStreams fault take:
// four digits each, so 23 of them overflow any buffer sized for two.
constexpr uint16_t kFirstExtraStream = 1000;
constexpr size_t kHeaderObjectCountAt = 24;

// Appends `object` to the Header Object's children in `header`, fixing the
// Header Object's size and child count; the Data Object's start stays last.
void appendHeaderObject(std::string& header, const std::string& object) {
  if (header.size() < kHeaderObjectFixedSize || !guidAt(header, 0, kHeaderObject)) return;
  const uint64_t size = getLe64(header, kGuidSize);
  if (size > header.size()) return;
  header.insert(static_cast<size_t>(size), object);
  std::string field;
  putLe64(field, size + object.size());
  header.replace(kGuidSize, 8, field);
  field.clear();
  putLe32(field, getLe32(header, kHeaderObjectCountAt) + 1);
  header.replace(kHeaderObjectCountAt, 4, field);
}

std::string streamBitrateProperties(int streams) {
  std::string o;
  putGuid(o, kStreamBitrateProperties);
  putLe64(o, kObjectHeadSize + 2 + 6 * static_cast<uint64_t>(streams));
  putLe16(o, static_cast<uint16_t>(streams));
  for (int i = 0; i < streams; ++i) {
    putLe16(o, static_cast<uint16_t>(kFirstExtraStream + i));
    putLe32(o, 8000);  // average bit rate
  }
  return o;
}

// An object head with nothing behind it that declares `declared` bytes.
std::string objectHead(const Guid& g, uint64_t declared) {
  std::string o;
  putGuid(o, g);
  putLe64(o, declared);
  return o;
}

// A Header Extension Object whose one child declares `childSize` bytes.
std::string headerExtensionWithChild(uint64_t childSize) {
  const std::string child = objectHead(kPadding, childSize);
  std::string o;
  putGuid(o, kHeaderExtension);
  putLe64(o, 46 + child.size());
  putGuid(o, kExtensionReserved);
  putLe16(o, 6);
  putLe32(o, static_cast<uint32_t>(child.size()));
  return o + child;
}

}  // namespace

std::string servedHeader(const AsfFile& file, const Faults& faults) {
  std::string header = file.header;
  if (faults.extraStreams > 0)
    appendHeaderObject(header, streamBitrateProperties(faults.extraStreams));
  if (faults.extensionChildOf4GiB) appendHeaderObject(header, headerExtensionWithChild(1ULL << 32));
  // Last, so that every other object has been seen when a walk stops here.
  if (faults.zeroSizeObject) appendHeaderObject(header, objectHead(kPadding, 0));
  return header;
}
