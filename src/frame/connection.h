// The library's process-wide state and the seam through which MVInit finds its server.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "frame/IBookServer.h"
#include "frame/activation.h"

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

// Installs the factory MVInit and MVChangeServer use and returns the previous one; an empty
// factory restores the default.
ServerFactory setServerFactory(ServerFactory factory);

// The default factory, which the library's entry installs (the frame knows no server of its
// own): it replaces the factory in use too. Without one, every link fails with
// kStatusClassNotRegistered.
void setDefaultServerFactory(ServerFactory factory);

// The folder MVSetDataFolder gave; empty when none was.
const std::string& dataFolder();

// Forgets the whole state without releasing anything: for test fixtures between cases.
void resetConnectionState();

}  // namespace mv
