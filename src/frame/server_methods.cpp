#include "frame/server_methods.h"

#include <array>

#include "frame/IBookServer.h"

namespace mv {

namespace {

template <typename... P, std::size_t... I>
int32_t callWith(IBookServer& server, int32_t (IBookServer::*method)(P...), const ArgRef* args,
                 std::index_sequence<I...>) {
  return (server.*method)(std::get<P>(args[I])...);
}

template <typename... P>
int32_t callWith(IBookServer& server, int32_t (IBookServer::*method)(P...), const ArgRef* args) {
  return callWith(server, method, args, std::index_sequence_for<P...>{});
}

#define MV_DESCRIBE_SERVER_METHOD(number, Name, flags, ...)                           \
  constexpr std::array<ArgKind, MV_PP_COUNT(__VA_ARGS__)> k##Name##Args{              \
      MV_PP_MAP(MV_ARG_KIND, __VA_ARGS__)};                                           \
  constexpr ServerMethod k##Name{number, #Name, flags, k##Name##Args,                 \
                                 [](IBookServer& server, const ArgRef* args) {        \
                                   return callWith(server, &IBookServer::Name, args); \
                                 }};
MV_SERVER_METHODS(MV_DESCRIBE_SERVER_METHOD)
#undef MV_DESCRIBE_SERVER_METHOD

#define MV_LIST_SERVER_METHOD(number, Name, flags, ...) &k##Name,
constexpr const ServerMethod* kMethods[] = {MV_SERVER_METHODS(MV_LIST_SERVER_METHOD)};
#undef MV_LIST_SERVER_METHOD

constexpr int32_t kMaxNumber = 127;

// Methods by number, for the lookup every forwarded call makes.
constexpr std::array<const ServerMethod*, kMaxNumber + 1> byNumber() {
  std::array<const ServerMethod*, kMaxNumber + 1> table{};
  for (const ServerMethod* m : kMethods) table[static_cast<std::size_t>(m->number)] = m;
  return table;
}

constexpr bool numbersAreUnique() {
  for (std::size_t i = 0; i < std::size(kMethods); ++i) {
    if (kMethods[i]->number < 3 || kMethods[i]->number > kMaxNumber) return false;
    for (std::size_t j = 0; j < i; ++j) {
      if (kMethods[i]->number == kMethods[j]->number) return false;
    }
  }
  return true;
}
static_assert(numbersAreUnique(), "a method number is taken twice or out of range");

constexpr auto kByNumber = byNumber();

constexpr uint64_t signature() {
  uint64_t h = 0xcbf29ce484222325ull;  // FNV-1a
  const auto mix = [&h](uint64_t v) {
    for (int i = 0; i < 8; ++i) {
      h ^= (v >> (8 * i)) & 0xFF;
      h *= 0x100000001b3ull;
    }
  };
  for (const ServerMethod* m : kMethods) {
    mix(static_cast<uint64_t>(m->number));
    mix(m->flags);
    mix(m->args.size());
    for (ArgKind k : m->args) mix(static_cast<uint64_t>(k));
  }
  return h;
}

}  // namespace

const ServerMethod* findServerMethod(int32_t number) {
  if (number < 0 || number > kMaxNumber) return nullptr;
  return kByNumber[static_cast<std::size_t>(number)];
}

std::span<const ServerMethod* const> serverMethods() { return kMethods; }

uint64_t serverMethodsSignature() {
  static constexpr uint64_t kSignature = signature();
  return kSignature;
}

}  // namespace mv
