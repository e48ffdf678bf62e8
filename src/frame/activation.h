// What making a link to a server may answer besides the server's own statuses: the codes an
// application knows from the component activation of the older system.
#pragma once

#include <cstdint>

namespace mv {

// No server is known by that name (or no way to a server is installed at all).
inline constexpr int32_t kStatusClassNotRegistered = static_cast<int32_t>(0x80040154u);
// The link was made but gave no server.
inline constexpr int32_t kStatusNoInterface = static_cast<int32_t>(0x80004002u);

}  // namespace mv
