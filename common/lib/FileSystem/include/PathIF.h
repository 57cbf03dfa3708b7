// Abstract path: a fixed text with existence, directory and base-name queries.
#pragma once

#include <string>
#include <string_view>

#include "FileSystemExport.h"

namespace drn {

// A fixed path text with existence, directory and base-name queries; Path implements it.
class DRN_EXPORT PathIF {
 public:
  virtual ~PathIF();

  // True unless the entry is missing (ENOENT or ENOTDIR); errno is 0 afterwards.
  bool Exists() const { return DoExists(); }
  // The text after the last '/' or '\\'; the whole text when there is none.
  std::string Basename() const { return DoBasename(); }
  // The stored text, unchanged; the view is valid while this object (or its moved-to successor)
  // lives.
  std::string_view GetPath() const { return DoGetPath(); }
  // True when the entry exists and can be opened as a directory.
  bool IsDirectory() const { return DoIsDirectory(); }

 protected:
  virtual bool DoExists() const = 0;
  virtual std::string DoBasename() const = 0;
  virtual std::string_view DoGetPath() const = 0;
  virtual bool DoIsDirectory() const = 0;
};

}  // namespace drn
