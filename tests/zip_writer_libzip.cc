// WriteZip (support.h) over libzip: members in the given order, names as raw bytes.
#include <zip.h>

#include "support.h"

namespace velfs_test {

void WriteZip(const std::string& path, const std::vector<ZipMember>& members,
              const std::string& comment) {
  int error = 0;
  zip_t* archive = zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error);
  ASSERT_NE(archive, nullptr) << "libzip cannot create " << path << ": " << error;
  for (const ZipMember& member : members) {
    zip_int64_t index;
    if (!member.name.empty() && member.name.back() == '/') {
      index = zip_dir_add(archive, member.name.c_str(), ZIP_FL_ENC_RAW);
    } else {
      zip_source_t* source = zip_source_buffer(archive, member.data.data(), member.data.size(), 0);
      index = zip_file_add(archive, member.name.c_str(), source, ZIP_FL_ENC_RAW);
      if (index >= 0) {
        zip_set_file_compression(archive, index, member.deflated ? ZIP_CM_DEFLATE : ZIP_CM_STORE,
                                 0);
      }
    }
    ASSERT_GE(index, 0) << member.name << ": " << zip_strerror(archive);
  }
  if (!comment.empty()) {
    ASSERT_EQ(zip_set_archive_comment(archive, comment.data(),
                                      static_cast<zip_uint16_t>(comment.size())), 0);
  }
  ASSERT_EQ(zip_close(archive), 0) << zip_strerror(archive);
}

}  // namespace velfs_test
