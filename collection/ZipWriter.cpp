#include <fcntl.h>
#include <isa-l.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zip.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <utility>
#include <vector>

#include "collection/CollectionError.h"
#include "collection/OwnFolder.h"
#include "collection/SnapshotWriter.h"
#include "platform/message/Utf8.h"
#include "support/Descriptor.h"

namespace collection {
namespace {

/// The headers of an entry at two places, with their fields for large files and times but without
/// its name.
constexpr std::uint64_t kEntryOverhead = 200;

/// From here on sizes may need more than 32 bits, compressed ones included.
constexpr std::uint64_t kLargeFile = 0xF000'0000;

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using FilePointer = std::unique_ptr<std::FILE, FileCloser>;

struct ZipCloser {
  void operator()(void* archive) const { zipClose(archive, nullptr); }
};

FilePointer createFile(int directory, const std::string& name) {
  kst::support::Descriptor created = createOwnFile(directory, name);
  if (!created) {
    throwCallFailed("open", name);
  }
  FilePointer file(fdopen(created.get(), "wb"));
  if (!file) {
    throwCallFailed("fdopen", name);
  }
  static_cast<void>(created.release());  // the stream's from now on
  return file;
}

tm_zip localTime(time_t time) {
  tm local{};
  localtime_r(&time, &local);
  // Unsigned in older releases of the library.
  const auto field = [](int value) { return static_cast<decltype(tm_zip::tm_sec)>(value); };
  // The format knows the years from 1980 to 2107.
  if (local.tm_year < 80) {
    return {.tm_sec = 0, .tm_min = 0, .tm_hour = 0, .tm_mday = 1, .tm_mon = 0, .tm_year = 1980};
  }
  if (local.tm_year > 207) {
    return {
        .tm_sec = 58, .tm_min = 59, .tm_hour = 23, .tm_mday = 31, .tm_mon = 11, .tm_year = 2107};
  }
  return {.tm_sec = field(local.tm_sec),
          .tm_min = field(local.tm_min),
          .tm_hour = field(local.tm_hour),
          .tm_mday = field(local.tm_mday),
          .tm_mon = field(local.tm_mon),
          .tm_year = field(local.tm_year + 1900)};
}

/// The extra field that tells the modification time in UTC, to the second; empty if it cannot.
std::string timeField(time_t time) {
  if (!std::in_range<std::int32_t>(time)) {
    return {};
  }
  std::string field("UT\5\0\1", 5);
  for (unsigned shift = 0; shift < 32; shift += 8) {
    field += static_cast<char>(static_cast<std::uint32_t>(time) >> shift & 0xFF);
  }
  return field;
}

class ZipWriter : public SnapshotWriter {
 public:
  ZipWriter(int directory, const std::string& archiveName)
      : name(archiveName), file(createFile(directory, archiveName)) {
    zlib_filefunc64_def functions{};
    fill_fopen64_filefunc(&functions);
    functions.opaque = file.get();
    functions.zopen64_file = [](void* opened, const void*, int) { return opened; };
    functions.zclose_file = [](void*, void*) { return 0; };
    errno = 0;
    archive.reset(zipOpen2_64(name.c_str(), APPEND_STATUS_CREATE, nullptr, &functions));
    check(archive ? ZIP_OK : ZIP_ERRNO);
  }

  bool begin(const LogRecord& record) override {
    constexpr uLong kUnixVersion = 3 << 8 | 45;
    constexpr uLong kNameIsUtf8 = 1 << 11;
    const std::string time = timeField(record.modified.tv_sec);
    const auto timeSize = static_cast<uInt>(time.size());
    zip_fileinfo info{};
    info.tmz_date = localTime(record.modified.tv_sec);
    info.external_fa = uLong{S_IFREG | kOwnFileMode} << 16;
    errno = 0;
    check(zipOpenNewFileInZip4_64(archive.get(), record.name.c_str(), &info, time.data(), timeSize,
                                  time.data(), timeSize, nullptr, Z_DEFLATED, Z_BEST_SPEED, 1,
                                  -MAX_WBITS, DEF_MEM_LEVEL, Z_DEFAULT_STRATEGY, nullptr, 0,
                                  kUnixVersion, isMessageText(record.name) ? kNameIsUtf8 : 0,
                                  record.size >= kLargeFile ? 1 : 0));
    isal_deflate_init(&deflater);
    deflater.level = 1;
    deflater.level_buf = deflateMemory.data();
    deflater.level_buf_size = static_cast<std::uint32_t>(deflateMemory.size());
    checksum = 0;
    content = 0;
    taken += kEntryOverhead + 2 * record.name.size();
    return true;
  }

  void write(std::string_view bytes) override {
    checksum = crc32_gzip_refl(checksum, reinterpret_cast<const unsigned char*>(bytes.data()),
                               bytes.size());
    content += bytes.size();
    deflate(bytes, false);
  }

  void end() override {
    deflate({}, true);
    errno = 0;
    check(zipCloseFileInZipRaw64(archive.get(), content, checksum));
  }

  void finish() override {
    errno = 0;
    check(zipClose(archive.release(), nullptr));
    if (std::fflush(file.get()) != 0 || fsync(fileno(file.get())) != 0) {
      throwCallFailed("write", name);
    }
  }

  [[nodiscard]] std::uint64_t room() const override { return taken; }

 private:
  void deflate(std::string_view bytes, bool isEnd) {
    // The library's pointer is not const, but it only reads.
    deflater.next_in =
        const_cast<std::uint8_t*>(reinterpret_cast<const std::uint8_t*>(bytes.data()));
    deflater.avail_in = static_cast<std::uint32_t>(bytes.size());
    deflater.end_of_stream = isEnd ? 1 : 0;
    do {
      deflater.next_out = output.data();
      deflater.avail_out = static_cast<std::uint32_t>(output.size());
      isal_deflate(&deflater);
      const std::size_t size = output.size() - deflater.avail_out;
      errno = 0;
      check(zipWriteInFileInZip(archive.get(), output.data(), static_cast<unsigned>(size)));
      taken += size;
    } while (deflater.avail_out == 0);
  }

  void check(int result) const {
    if (result != ZIP_OK) {
      errno = errno != 0 ? errno : EIO;
      throwCallFailed("write", name);
    }
  }

  const std::string name;
  FilePointer file;
  std::unique_ptr<void, ZipCloser> archive;  // must go before `file`
  isal_zstream deflater{};
  std::vector<std::uint8_t> deflateMemory = std::vector<std::uint8_t>(ISAL_DEF_LVL1_DEFAULT);
  std::vector<std::uint8_t> output = std::vector<std::uint8_t>(std::size_t{1} << 18);
  std::uint32_t checksum = 0;
  std::uint64_t content = 0;  // of the present file, bytes before compression
  std::uint64_t taken = 0;
};

}  // namespace

std::unique_ptr<SnapshotWriter> makeZipWriter(int directory, const std::string& name) {
  return std::make_unique<ZipWriter>(directory, name);
}

}  // namespace collection
