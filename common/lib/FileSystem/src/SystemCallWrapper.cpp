// SystemCallWrapper: its operations are inline; this file anchors its vtable in the library.
#include "SystemCallWrapper.h"

namespace drn {

SystemCallWrapper::~SystemCallWrapper() = default;

}  // namespace drn
