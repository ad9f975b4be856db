#include "support/open_regular.h"

namespace netvane {

// No resolver here refuses symlinks on every component and lets a file's type
// be checked before it is opened: the portable walk is the best there is.
Result<UniqueFd> openRegularNoSymlinks(const std::string& path) { return openRegularByComponents(path); }

}  // namespace netvane
