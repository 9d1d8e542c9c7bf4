// Why the library refused a database: the exported API answers a failure with null or false and
// no reason, so after a failure the tool asks SQLite itself, on a connection of its own that
// only reads (it never creates, changes or recovers the file) and trusts nothing in its schema.
#ifndef VELFS_TOOLS_DATABASE_DIAGNOSIS_H
#define VELFS_TOOLS_DATABASE_DIAGNOSIS_H

#include <string>

namespace velfs::tool {

// The cause found for database file `hostPath`, in words for a message: locked by another
// program, damaged, no "FileStorage" table, a "FileStorage" that is not a table, a table without
// the FileName, Path or Content column. Empty when none of these is found. Never throws.
std::string DiagnoseDatabase(const std::string& hostPath);

}  // namespace velfs::tool

#endif  // VELFS_TOOLS_DATABASE_DIAGNOSIS_H
