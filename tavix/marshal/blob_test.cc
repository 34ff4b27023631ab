// Memory and file blobs: growth, the move to a temporary file and its clean-up, file names, named files, and files
// that cannot be opened.
#include "tavix/marshal/blob.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <regex>

#include "tavix/core/format.h"
#include "tavix/core/text.h"
#include "tavix/marshal/marshal_test_util.h"
#include "tavix/platform/process.h"

namespace TAVIX {
namespace {

namespace fs = std::filesystem;
using namespace testing;

std::string Pid() { return NarrowString(FormatString(u"%05u", platform::ProcessId())); }

// This process's files in the temporary blob folder.
size_t OurTemporaryFiles() {
  const fs::path folder = TavixBlob::TemporaryFolder();
  if (!fs::exists(folder)) return 0;
  size_t n = 0;
  for (const auto& entry : fs::directory_iterator(folder)) n += entry.path().filename().string().rfind(Pid(), 0) == 0;
  return n;
}

std::string PathOf(ITavixBlob& blob) { return NarrowString(dynamic_cast<TavixBlob&>(blob).FileName()); }

// Every test leaves the temporary folder as it found it.
class BlobTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_before = OurTemporaryFiles();
    fs::create_directories(m_dir);
  }
  void TearDown() override {
    fs::remove_all(m_dir);
    EXPECT_EQ(OurTemporaryFiles(), m_before) << "temporary file left behind";
  }

  const fs::path m_dir = fs::temp_directory_path() / ("tavix_blob_" + Pid());

 private:
  size_t m_before = 0;
};

TEST_F(BlobTest, MemoryBlobKindsGrowthAndBounds) {
  EXPECT_EQ(CreateTavixBlob(kBlobFileThreshold - 1)->Type(), MemBlob);
  EXPECT_EQ(CreateTavixBlob(kBlobFileThreshold)->Type(), FileBlob);

  TavixBlob blob(MemBlob);
  const Bytes data = Pattern(10, 1);
  EXPECT_EQ(blob.Write(data.data(), 10, 100), 10);
  EXPECT_EQ(blob.Size(), 110u);
  uint8_t out[16] = {};
  EXPECT_EQ(blob.Read(out, 16, 100), 10);
  EXPECT_EQ(Bytes(out, out + 10), data);
  EXPECT_EQ(blob.Read(out, 4, 110), 0);
  EXPECT_EQ(blob.Read(out, -1, 0), 0);

  // Clear keeps the room; growing at least doubles it.
  blob.Clear();
  EXPECT_EQ(blob.Append("hello", 5), 5);
  EXPECT_EQ(std::memcmp(blob.Data(), "hello", 5), 0);
  EXPECT_EQ(blob.Write(out, 1, 110), 1);
  EXPECT_EQ(blob.Capacity(), 220u);
  // A blob made to stay in memory does so past 1 MiB.
  const Bytes big = Pattern(3u << 20, 2);
  EXPECT_EQ(blob.Write(big.data(), static_cast<int32_t>(big.size()), 0), static_cast<int32_t>(big.size()));
  EXPECT_EQ(blob.Type(), MemBlob);
  EXPECT_EQ(std::memcmp(blob.Data(), big.data(), big.size()), 0);
}

TEST_F(BlobTest, AutomaticBlobMovesToATemporaryFileAndCleansUp) {
  const Bytes piece = Pattern(65536, 3);
  std::string path;
  {
    TavixBlob blob;
    for (int i = 1; i <= 8; ++i) ASSERT_EQ(blob.Append(piece.data(), 65536), 65536);
    EXPECT_EQ(blob.Type(), MemBlob);
    ASSERT_EQ(blob.Append(piece.data(), 65536), 65536);  // needs 1 MiB of room
    EXPECT_EQ(blob.Type(), FileBlob);
    EXPECT_EQ(blob.Data(), nullptr);
    EXPECT_EQ(blob.Size(), 589824u);
    path = PathOf(blob);
    EXPECT_EQ(fs::file_size(path), 1048576u);  // extended ahead of the data
    Bytes back(65536);
    for (uint64_t offset = 0; offset < blob.Size(); offset += 65536) {
      ASSERT_EQ(blob.Read(back.data(), 65536, offset), 65536);
      ASSERT_EQ(back, piece) << offset;
    }
  }
  EXPECT_FALSE(fs::exists(path));
}

TEST_F(BlobTest, TemporaryFilesAreNamedByProcessAndThreadBesideTheLibrary) {
  SmartPtr<ITavixBlob> a = CreateTavixFileBlob();
  SmartPtr<ITavixBlob> b = CreateTavixFileBlob();
  ASSERT_EQ(a->Append("a", 1), 1);
  ASSERT_EQ(b->Append("b", 1), 1);
  EXPECT_NE(PathOf(*a), PathOf(*b));
  const std::string library = platform::LibraryPath();
  EXPECT_EQ(fs::path(PathOf(*a)).parent_path().string() + "/",
            library.substr(0, library.rfind('/') + 1) + "TavixBuffer/");
  const std::string ids = Pid() + NarrowString(FormatString(u"%05u", platform::ThreadId()));
  const std::string leaf = fs::path(PathOf(*a)).filename().string();
  EXPECT_TRUE(std::regex_match(leaf, std::regex(ids + "[0-9]{7}\\.tmp"))) << leaf;

  // Growing a file blob leaves a sparse hole that reads to the end.
  ASSERT_EQ(a->Resize(0x80000000ull), 0x80000000ull);
  uint8_t back[100];
  EXPECT_EQ(a->Read(back, 1, 0), 1);
  EXPECT_EQ(back[0], 'a');
  EXPECT_EQ(a->Read(back, 100, 0x80000000ull - 40), 40);
}

TEST_F(BlobTest, NamedFileIsReadExtendedAndTrimmedOnClose) {
  const fs::path path = m_dir / "named.bin";
  const Bytes original = Pattern(3000, 4);
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(original.data()), 3000);
  {
    SmartPtr<ITavixBlob> blob = CreateTavixFileBlob(path.string().c_str());
    EXPECT_EQ(blob->Size(), 3000u);
    EXPECT_EQ(blob->Append("0123456789", 10), 10);
    EXPECT_EQ(fs::file_size(path), 6000u);  // room doubled ahead of the data
  }
  ASSERT_EQ(fs::file_size(path), 3010u);
  std::vector<char> all(3010);
  std::ifstream(path, std::ios::binary).read(all.data(), 3010);
  EXPECT_EQ(std::memcmp(all.data(), original.data(), 3000), 0);
  EXPECT_EQ(std::string(all.data() + 3000, 10), "0123456789");
  EXPECT_EQ(CreateTavixFileBlob(WiddenString(path.string()).c_str())->Size(), 3010u);

  // A null name: a temporary name, but the file is kept.
  std::string kept;
  {
    TavixBlob blob(static_cast<const char16_t*>(nullptr));
    ASSERT_EQ(blob.Append("kept", 4), 4);
    kept = PathOf(blob);
  }
  EXPECT_EQ(fs::file_size(kept), 4u);
  fs::remove(kept);
}

TEST_F(BlobTest, UnopenableFileFailsWithTheLastErrorSet) {
  SmartPtr<ITavixBlob> blob = CreateTavixFileBlob((m_dir / "missing" / "x.bin").string().c_str());
  uint8_t byte = 0;
  EXPECT_EQ(OutcomeOf([&] { return blob->Write(&byte, 1, 0); }), (Outcome{-2, ENOENT}));
  EXPECT_EQ(OutcomeOf([&] { return blob->Read(&byte, 1, 0); }), (Outcome{-2, ENOENT}));
  EXPECT_EQ(blob->Size(), kBlobFailure);
  EXPECT_EQ(blob->Resize(10), kBlobFailure);
}

}  // namespace
}  // namespace TAVIX
