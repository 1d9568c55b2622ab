#include "collection/ZipArchive.h"

#include <zip.h>

#include <memory>

#include "support/DirectoryStream.h"

namespace collection {
namespace {

struct ZipDiscard {
  void operator()(zip_t* archive) const { zip_discard(archive); }
};

using Archive = std::unique_ptr<zip_t, ZipDiscard>;

std::string openFailed(const std::string& path, int code) {
  zip_error_t error;
  zip_error_init_with_code(&error, code);
  std::string text = "zip_open " + path + ": " + zip_error_strerror(&error);
  zip_error_fini(&error);
  return text;
}

std::string zipFailed(const char* call, const std::string& path, const Archive& archive) {
  return std::string(call) + " " + path + ": " + zip_strerror(archive.get());
}

bool addFile(const Archive& archive, const std::string& path, const std::string& name) {
  zip_source_t* source = zip_source_file(archive.get(), path.c_str(), 0, 0);
  if (source == nullptr) {
    return false;
  }
  // From here on the archive owns the source, unless this call fails.
  if (zip_file_add(archive.get(), name.c_str(), source, ZIP_FL_ENC_GUESS) >= 0) {
    return true;
  }
  zip_source_free(source);
  return false;
}

}  // namespace

Failure writeZip(const std::string& path, const std::string& folder,
                 const std::vector<std::string>& names) {
  int code = 0;
  Archive archive(zip_open(path.c_str(), ZIP_CREATE | ZIP_EXCL, &code));
  if (!archive) {
    return openFailed(path, code);
  }
  for (const std::string& name : names) {
    const std::string file = kst::support::childPath(folder, name);
    if (!addFile(archive, file, name)) {
      return zipFailed("zip_file_add", file, archive);
    }
  }
  // The files are read and the archive is written only now, under a temporary name at first.
  if (zip_close(archive.get()) != 0) {
    return zipFailed("zip_close", path, archive);
  }
  static_cast<void>(archive.release());
  return {};
}

}  // namespace collection
