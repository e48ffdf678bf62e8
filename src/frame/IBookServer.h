// The one interface of the book server. Every operation of the library ends in these methods;
// the embedded server, the network proxy and the tests' recording server implement it.
//
// Conventions of every method: the result is a status, 0 for success and anything else a
// failure code of the server; on failure out-parameters are left as they were. BSTR arguments
// are owned by the caller. BSTR* out-parameters receive a text allocated with MVSysAllocString
// that the caller frees; the caller passes a holder that is null or holds an empty text.
// VARIANT* out-parameters receive arrays that the caller clears; VARIANT* in-parameters stay
// the caller's. The methods, their numbers and their arguments come from the one table in
// server_methods.h; of the object's own methods (0 to 2) Release is kept.
#pragma once

#include <cstdint>

#include "MVCore.h"
#include "frame/server_methods.h"

namespace mv {

class IBookServer {
 public:
  IBookServer() = default;
  IBookServer(const IBookServer&) = delete;
  IBookServer& operator=(const IBookServer&) = delete;

  // 2: drops the caller's reference. The default deletes the object; a proxy may throw when its
  // peer is gone, which the library catches.
  virtual void Release() { delete this; }

  // The methods of the table in server_methods.h, each as
  //   virtual int32_t Name(parameters) = 0;
#define MV_DECLARE_SERVER_METHOD(number, Name, flags, ...) \
  virtual int32_t Name(MV_METHOD_PARAMS(__VA_ARGS__)) = 0;
  MV_SERVER_METHODS(MV_DECLARE_SERVER_METHOD)
#undef MV_DECLARE_SERVER_METHOD

 protected:
  // Only Release ends an object's life.
  virtual ~IBookServer() = default;
};

// Statuses the library itself knows by value.
inline constexpr int32_t kStatusMissingDatabase = 0x8A;  // OpenDatabase mode 0x63: no such db
inline constexpr int32_t kStatusTableExists = 10;        // CheckTBL: yes
inline constexpr int32_t kStatusColumnExists = 14;       // CheckColumn: yes

// OpenDatabase modes.
inline constexpr int32_t kOpenForWork = 0;
inline constexpr int32_t kOpenHeld = 1;
inline constexpr int32_t kOpenTestExists = 0x63;

// Declares, in a class that implements IBookServer, an override of every method of the table.
#define MV_OVERRIDE_SERVER_METHOD(number, Name, flags, ...) \
  int32_t Name(MV_METHOD_PARAMS(__VA_ARGS__)) override;
#define MV_SERVER_METHOD_OVERRIDES MV_SERVER_METHODS(MV_OVERRIDE_SERVER_METHOD)

// An IBookServer that hands every call, whatever the method, to one function with the
// method's row of the table and the arguments as the caller passed them: what a proxy or a
// recording fake needs, with no code of its own per method.
class ForwardingServer : public IBookServer {
 public:
#define MV_FORWARD_SERVER_METHOD(number, Name, flags, ...)                                       \
  int32_t Name(MV_METHOD_PARAMS(__VA_ARGS__)) final {                                            \
    const std::array<ArgRef, MV_PP_COUNT(__VA_ARGS__)> args{MV_PP_MAP(MV_ARG_REF, __VA_ARGS__)}; \
    return forward(*findServerMethod(number), args);                                             \
  }
  MV_SERVER_METHODS(MV_FORWARD_SERVER_METHOD)
#undef MV_FORWARD_SERVER_METHOD

 protected:
  // `args` hold one entry per argument of `method`, each of its kind's type.
  virtual int32_t forward(const ServerMethod& method, std::span<const ArgRef> args) = 0;
};

}  // namespace mv
