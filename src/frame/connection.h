// The library's process-wide state and the seam through which MVInit finds its server.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "frame/IBookServer.h"

namespace mv {

// Everything the library keeps between calls. One thread drives the library, so the state is
// unprotected. The logged-on user is deliberately not kept: the server knows it.
struct ConnectionState {
  IBookServer* currentServer = nullptr;
  IBookServer* homeServer = nullptr;  // set while MVChangeServer is in force
  int32_t lastError = 0;
  int16_t lastImageError = 0;
  int32_t systemDbHeld = 0;  // MVOpenDB holds MarvekSystemCommonDB
  int32_t bookDbHeld = 0;    // MVOpenDBEx holds a book database
  std::string imageTableHandle;
  int32_t imageTableOpen = 0;
  std::string deleteHandle;
  std::string figureCopyHandle;
  std::string valueCopyHandle;
  std::string linkStamp;
};

ConnectionState& connection();

// Stores a failing status in lastError; true if `status` is a failure.
inline bool failed(int32_t status) {
  if (status == 0) return false;
  connection().lastError = status;
  return true;
}

inline constexpr char kSystemDb[] = "MarvekSystemCommonDB";

// Makes the link to a server. `host` is empty for the server in this process, else the name the
// application gave. On success stores a server with one reference in `*server` and returns 0;
// otherwise returns the activation's failure status.
using ServerFactory = std::function<int32_t(std::string_view host, IBookServer** server)>;

// Activation statuses of the default connector.
inline constexpr int32_t kStatusClassNotRegistered = static_cast<int32_t>(0x80040154u);
inline constexpr int32_t kStatusNoInterface = static_cast<int32_t>(0x80004002u);

// Installs the factory MVInit and MVChangeServer use and returns the previous one; an empty
// factory restores the default.
ServerFactory setServerFactory(ServerFactory factory);

// Forgets the whole state without releasing anything: for test fixtures between cases.
void resetConnectionState();

}  // namespace mv
