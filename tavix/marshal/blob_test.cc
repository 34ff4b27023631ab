#include "tavix/marshal/blob.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <regex>
#include <string>
#include <vector>

#include "tavix/core/errors.h"
#include "tavix/core/text.h"
#include "tavix/platform/process.h"

namespace TAVIX {
namespace {

namespace fs = std::filesystem;

// Temporary files of this process in the blob folder.
std::vector<std::string> OurTemporaryFiles() {
  std::vector<std::string> found;
  const fs::path folder = TavixBlob::TemporaryFolder();
  if (!fs::exists(folder)) return found;
  char prefix[16];
  std::snprintf(prefix, sizeof prefix, "%05u", platform::ProcessId());
  for (const auto& entry : fs::directory_iterator(folder)) {
    const std::string name = entry.path().filename().string();
    if (name.rfind(prefix, 0) == 0) found.push_back(name);
  }
  return found;
}

std::vector<uint8_t> Pattern(size_t n, uint32_t seed) {
  std::vector<uint8_t> out(n);
  for (size_t i = 0; i < n; ++i) out[i] = static_cast<uint8_t>((i * 2654435761u + seed) >> 13);
  return out;
}

std::string NarrowName(ITavixBlob& blob) { return NarrowString(dynamic_cast<TavixBlob&>(blob).FileName()); }

class BlobTest : public ::testing::Test {
 protected:
  void SetUp() override { m_before = OurTemporaryFiles().size(); }
  void TearDown() override { EXPECT_EQ(OurTemporaryFiles().size(), m_before) << "temporary file left behind"; }

  fs::path Scratch(const std::string& leaf) {
    const fs::path dir = fs::temp_directory_path() / ("tavix_blob_" + std::to_string(platform::ProcessId()));
    fs::create_directories(dir);
    m_paths.push_back(dir);
    return dir / leaf;
  }
  ~BlobTest() override {
    for (const auto& p : m_paths) fs::remove_all(p);
  }

 private:
  size_t m_before = 0;
  std::vector<fs::path> m_paths;
};

TEST_F(BlobTest, FactoriesChooseTheKindBySize) {
  EXPECT_EQ(CreateTavixBlob(1048575)->Type(), MemBlob);
  EXPECT_EQ(CreateTavixBlob(1048576)->Type(), FileBlob);
  EXPECT_EQ(CreateTavixMemBlob()->Type(), MemBlob);
  EXPECT_EQ(CreateTavixFileBlob()->Type(), FileBlob);
  EXPECT_EQ(CreateTavixBlob()->Type(), MemBlob);
  // The size only chooses the kind: no room, no file yet.
  SmartPtr<ITavixBlob> big = CreateTavixBlob(5u << 20);
  EXPECT_TRUE(dynamic_cast<TavixBlob&>(*big).FileName().empty());
}

TEST_F(BlobTest, MemoryBlobWritesReadsAndGrows) {
  TavixBlob blob(MemBlob);
  const auto data = Pattern(10, 1);
  EXPECT_EQ(blob.Write(data.data(), 10, 100), 10);
  EXPECT_EQ(blob.Size(), 110u);
  EXPECT_EQ(blob.Capacity(), 110u);
  uint8_t out[16] = {};
  EXPECT_EQ(blob.Read(out, 16, 100), 10);
  EXPECT_EQ(std::vector<uint8_t>(out, out + 10), data);
  EXPECT_EQ(blob.Read(out, 4, 110), 0);
  EXPECT_EQ(blob.Read(out, 4, 500), 0);
  EXPECT_EQ(blob.Read(out, 0, 0), 0);
  EXPECT_EQ(blob.Write(out, 0, 0), 0);
  EXPECT_EQ(blob.Write(out, -1, 0), 0);

  blob.Clear();
  EXPECT_EQ(blob.Append("hello", 5), 5);
  EXPECT_EQ(blob.Size(), 5u);
  EXPECT_EQ(blob.Capacity(), 110u);
  EXPECT_EQ(std::memcmp(blob.Data(), "hello", 5), 0);

  // Room at least doubles.
  EXPECT_EQ(blob.Write(out, 1, 110), 1);
  EXPECT_EQ(blob.Capacity(), 220u);
  EXPECT_EQ(blob.Resize(1000), 1000u);
  EXPECT_EQ(blob.Size(), 1000u);
  EXPECT_EQ(blob.Capacity(), 1000u);

  // A blob made to stay in memory does so past 1 MiB.
  const auto big = Pattern(3u << 20, 2);
  EXPECT_EQ(blob.Write(big.data(), static_cast<int32_t>(big.size()), 0), static_cast<int32_t>(big.size()));
  EXPECT_EQ(blob.Type(), MemBlob);
  EXPECT_EQ(std::memcmp(blob.Data(), big.data(), big.size()), 0);
}

TEST_F(BlobTest, AutomaticBlobMovesToATemporaryFileAndCleansUp) {
  const auto piece = Pattern(65536, 3);
  std::string path;
  {
    TavixBlob blob;
    for (int i = 1; i <= 8; ++i) {
      ASSERT_EQ(blob.Append(piece.data(), 65536), 65536);
      EXPECT_EQ(blob.Type(), MemBlob) << i;
    }
    EXPECT_EQ(blob.Size(), 524288u);
    EXPECT_EQ(blob.Capacity(), 524288u);
    EXPECT_TRUE(blob.FileName().empty());
    ASSERT_EQ(blob.Append(piece.data(), 65536), 65536);
    EXPECT_EQ(blob.Type(), FileBlob);
    EXPECT_EQ(blob.Data(), nullptr);
    EXPECT_EQ(blob.Size(), 589824u);
    EXPECT_EQ(blob.Capacity(), 1048576u);
    path = NarrowString(blob.FileName());
    EXPECT_EQ(fs::path(path).parent_path().filename(), "TavixBuffer");
    EXPECT_EQ(fs::file_size(path), 1048576u);  // extended ahead of the data
    // Every earlier byte made it into the file.
    std::vector<uint8_t> back(65536);
    for (uint64_t offset = 0; offset < blob.Size(); offset += 65536) {
      ASSERT_EQ(blob.Read(back.data(), 65536, offset), 65536);
      ASSERT_EQ(back, piece) << offset;
    }
    // It keeps growing in the file.
    ASSERT_EQ(blob.Resize(3u << 20), 3u << 20);
    EXPECT_EQ(fs::file_size(path), 3u << 20);
  }
  EXPECT_FALSE(fs::exists(path));
}

TEST_F(BlobTest, TemporaryNamesAreDistinctAndFollowTheFormat) {
  SmartPtr<ITavixBlob> a = CreateTavixFileBlob();
  SmartPtr<ITavixBlob> b = CreateTavixFileBlob();
  ASSERT_EQ(a->Append("a", 1), 1);
  ASSERT_EQ(b->Append("b", 1), 1);
  const std::string na = NarrowName(*a);
  const std::string nb = NarrowName(*b);
  EXPECT_NE(na, nb);
  char expected[16];
  std::snprintf(expected, sizeof expected, "%05u%05u", platform::ProcessId(), platform::ThreadId());
  const std::string leaf = fs::path(na).filename().string();
  EXPECT_EQ(leaf.rfind(expected, 0), 0u) << leaf;
  EXPECT_TRUE(std::regex_match(leaf, std::regex("[0-9]{17,}\\.tmp"))) << leaf;
  EXPECT_EQ(fs::path(na).parent_path().string() + "/", TavixBlob::TemporaryFolder());
  EXPECT_EQ(TavixBlob::TemporaryFolder(),
            platform::LibraryPath().substr(0, platform::LibraryPath().rfind('/') + 1) + "TavixBuffer/");
}

TEST_F(BlobTest, NamedFileIsReadExtendedAndTrimmedOnClose) {
  const fs::path path = Scratch("named.bin");
  const auto original = Pattern(3000, 4);
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(original.data()), 3000);
  {
    SmartPtr<ITavixBlob> blob = CreateTavixFileBlob(path.string().c_str());
    EXPECT_EQ(blob->Size(), 3000u);
    std::vector<uint8_t> back(3000);
    EXPECT_EQ(blob->Read(back.data(), 3000, 0), 3000);
    EXPECT_EQ(back, original);
    EXPECT_EQ(blob->Append("0123456789", 10), 10);
    EXPECT_EQ(fs::file_size(path), 6000u);  // room doubled ahead of the data
    blob->Commit();
  }
  ASSERT_EQ(fs::file_size(path), 3010u);
  std::ifstream in(path, std::ios::binary);
  std::vector<char> all(3010);
  in.read(all.data(), 3010);
  EXPECT_EQ(std::memcmp(all.data(), original.data(), 3000), 0);
  EXPECT_EQ(std::string(all.data() + 3000, 10), "0123456789");

  // The wide form names the same file.
  const std::u16string wide = WiddenString(path.string());
  SmartPtr<ITavixBlob> again = CreateTavixFileBlob(wide.c_str());
  EXPECT_EQ(again->Size(), 3010u);
}

TEST_F(BlobTest, NullNameTakesATemporaryNameButKeepsTheFile) {
  std::string path;
  {
    TavixBlob blob(static_cast<const char16_t*>(nullptr));
    ASSERT_EQ(blob.Append("kept", 4), 4);
    path = NarrowString(blob.FileName());
  }
  ASSERT_TRUE(fs::exists(path));
  EXPECT_EQ(fs::file_size(path), 4u);
  fs::remove(path);
}

TEST_F(BlobTest, UnopenableFileFailsWithTheLastErrorSet) {
  const fs::path path = Scratch("missing-dir") / "x.bin";
  SmartPtr<ITavixBlob> blob = CreateTavixFileBlob(path.string().c_str());
  uint8_t byte = 0;
  TavixSetLastError(0);
  EXPECT_EQ(blob->Write(&byte, 1, 0), -2);
  EXPECT_EQ(TavixGetLastError(), static_cast<uint32_t>(ENOENT));
  TavixSetLastError(0);
  EXPECT_EQ(blob->Read(&byte, 1, 0), -2);
  EXPECT_EQ(TavixGetLastError(), static_cast<uint32_t>(ENOENT));
  EXPECT_EQ(blob->Append(&byte, 1), -2);
  EXPECT_EQ(blob->Size(), kBlobFailure);
  EXPECT_EQ(blob->Resize(10), kBlobFailure);
  blob->Commit();
  EXPECT_FALSE(fs::exists(path));
}

TEST_F(BlobTest, FileBlobGrowsSparseAndReadsBackAcrossPieces) {
  SmartPtr<ITavixBlob> blob = CreateTavixFileBlob();
  const auto data = Pattern(200000, 5);
  ASSERT_EQ(blob->Write(data.data(), 200000, 0), 200000);
  ASSERT_EQ(blob->Resize(0x80000000ull), 0x80000000ull);  // sparse: no real disk use
  EXPECT_EQ(blob->Size(), 0x80000000ull);
  std::vector<uint8_t> back(200000);
  EXPECT_EQ(blob->Read(back.data(), 200000, 0), 200000);
  EXPECT_EQ(back, data);
  EXPECT_EQ(blob->Read(back.data(), 100, 0x80000000ull - 40), 40);
}

}  // namespace
}  // namespace TAVIX
