// Why the library refused a database: the exported API answers a failure with null or false and
// no reason, so after a failure the tool asks SQLite itself, on a connection of its own that
// only reads (it never creates, changes or recovers the file) and trusts nothing in its schema.
#ifndef VELFS_TOOLS_DATABASE_DIAGNOSIS_H
#define VELFS_TOOLS_DATABASE_DIAGNOSIS_H

#include <string>
#include <vector>

namespace velfs::tool {

// The cause found for database file `hostPath`, in words for a message: locked by another
// program, damaged, no "FileStorage" table, a "FileStorage" that is not a table, a table without
// the FileName, Path or Content column. Empty when none of these is found. Never throws.
std::string DiagnoseDatabase(const std::string& hostPath);

// The rows of database file `hostPath` below directory `directory` (empty or ending in '/') that
// no listing of the API reaches: those whose Path does not end in '/' (a listing matches a row's
// Path against the directory it lists). Each is answered as Path + FileName. Empty when there
// are none or the file cannot be read. Never throws.
std::vector<std::string> UnlistedRows(const std::string& hostPath, const std::string& directory);

}  // namespace velfs::tool

#endif  // VELFS_TOOLS_DATABASE_DIAGNOSIS_H
