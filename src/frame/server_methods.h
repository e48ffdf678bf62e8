// The server's methods, declared once. Each row of MV_SERVER_METHODS gives a method's number (its
// place in the interface table), its name, its flags and its arguments as (kind, name) pairs.
// From this one table come the C++ interface (IBookServer.h), the network proxy's marshalling,
// the daemon's dispatch and the tests' recording server; the wire checks every call against it.
// Adding a method means one row here and its implementation in the server.
//
// Kinds say how an argument crosses and which way it travels:
//   Text       BSTR in                  Int        int32_t in
//   Handle     BSTR in: a handle from an open result; a write through it makes held rows stale
//   GoodBytes  int32_t in: how many bytes of the call's BlockIn are good
//   IntOut     int32_t* out             IntInOut   int32_t* in and out
//   LongOut    int64_t* out             RealInOut  double* in and out
//   TextOut    BSTR* out                TextInOut  BSTR* in and out
//   HandleOut  BSTR* out: the handle of a result the call opened
//   Block16    uint8_t[16] the caller zeroes; what comes back is ignored
//   Record     VARIANT* in: an array of tagged texts ("TABLENAME=<handle>", ...)
//   BlockIn    VARIANT* in: an array of bytes
//   RowOut     VARIANT* out: one row of texts
//   BlockOut   VARIANT* out: an array of bytes, or no array past the end
//   ValueOut   VARIANT* out: an array of texts or of integers, or nothing
// Out-parameters are written only by a call that succeeds; in-out ones are the caller's on a
// failure too. A null pointer stays null.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>
#include <variant>

#include "MVCore.h"

// clang-format off
#define MV_SERVER_METHODS(X)                                                                      \
  /* databases and tables */                                                                      \
  X(8, DeleteDatabase, kForgetsAllRows, (Text, dbName), (Text, option))                           \
  X(9, CopyDatabase, 0, (Text, srcDb), (Text, srcOption), (Text, dstDb), (Text, dstOption),       \
    (Int, kind))                                                                                  \
  X(10, OpenDatabase, 0, (Text, dbName), (Int, mode), (IntOut, out))                              \
  X(16, CreateTable, 0, (Text, dbName), (Text, tableName), (Int, tableKind))                      \
  X(24, ExecuteQuery, 0, (Text, dbName), (Text, tableName), (Text, sql), (Int, flag),             \
    (IntOut, rowCount), (HandleOut, handle))                                                      \
  X(25, GetRecords, kReadsRows, (Text, dbName), (Handle, handle), (Int, rowIndex), (RowOut, row)) \
  X(37, CloseDatabase, 0, (Text, dbName))                                                         \
  X(46, OpenTable, 0, (Text, dbName), (Text, tableName), (Int, mode), (IntOut, rowCount),         \
    (HandleOut, handle))                                                                          \
  X(47, CloseTable, 0, (Text, dbName), (Handle, handle))                                          \
  X(53, UnlockDatabase, 0, (Text, dbName))                                                        \
  X(55, ExecuteSQL, 0, (Text, dbName), (Text, sql))                                               \
  X(60, OpenTableEx, 0, (Text, dbName), (Text, tableName), (Text, sql), (Int, flag),              \
    (IntOut, rowCount), (HandleOut, handle))                                                      \
  X(63, CreateBookDatabase, 0, (Text, templateName), (Text, option), (Text, newDbName))           \
  X(80, CheckTBL, 0, (Text, dbName), (Text, tableName))                                           \
  X(103, CheckColumn, 0, (Text, dbName), (Text, tableName), (Text, columnName))                   \
  /* rows and blobs */                                                                            \
  X(19, AddRecord, 0, (Text, dbName), (Record, record), (Int, recordCount), (IntOut, newIndex))   \
  X(20, UpdateRecord, 0, (Text, dbName), (Record, record), (Int, recordCount),                    \
    (IntInOut, tIndex))                                                                           \
  X(26, DownLoadData, kReadsAhead, (Text, dbName), (Handle, handle), (Text, columnName),          \
    (Int, rowIndex), (Int, blockNo), (Int, blockSize), (BlockOut, block), (IntOut, isEnd),        \
    (IntOut, bytes))                                                                              \
  X(40, UpLoadData, 0, (Record, record), (Int, blockNo), (GoodBytes, bytes), (BlockIn, block),    \
    (Int, isLast))                                                                                \
  X(42, DeleteRecord, 0, (Text, dbName), (Handle, handle), (Int, tIndex))                         \
  X(62, DeleteRecords, 0, (Text, dbName), (Handle, handle), (Int, firstRow), (Int, lastRow))      \
  X(76, ImageFileDate, 0, (Text, dbName), (Handle, handle), (Int, op), (Int, tIndex),             \
    (RealInOut, date))                                                                            \
  /* counters and mutual exclusion */                                                             \
  X(30, SetBookUpdateCounter, 0, (Text, dbName))                                                  \
  X(31, SetMutex, 0, (Text, name), (Int, op))                                                     \
  X(38, GetBookUpdateCounter, 0, (Text, dbName), (Block16, block16), (IntOut, counter))           \
  X(39, TagUpdateCounter, 0, (Text, dbName), (Int, tagIndex), (Int, op), (Block16, block16),      \
    (IntOut, counter))                                                                            \
  X(48, SetCounter, 0, (Text, name), (Int, op), (IntOut, value))                                  \
  /* users and logon */                                                                           \
  X(33, SetUserAdmin, 0, (Text, first), (Text, second), (Int, third))                             \
  X(34, GetLoginUsers, 0, (ValueOut, list), (IntOut, count))                                      \
  X(35, GetConnect, 0, (IntOut, first), (IntOut, second))                                         \
  X(57, LoginMgr, 0, (Text, first), (Text, second), (Text, third), (Int, fourth))                 \
  /* carrying, replication, shared folders */                                                     \
  X(29, CarryingInfoBook, 0, (Text, dbName), (Int, first), (Int, second))                         \
  X(43, CarryingOut, 0, (Text, dbName), (Int, blockNo), (Int, blockSize), (BlockOut, block),      \
    (IntOut, isEnd), (TextOut, fileName), (IntOut, value))                                        \
  X(44, Carryingin, 0, (Text, dbName), (Int, isFirst), (GoodBytes, bytes), (BlockIn, block),      \
    (Int, isLast))                                                                                \
  X(45, CarryingSetup, 0, (Text, first), (Text, second))                                          \
  X(59, DBBackUpBase, 0, (Int, a), (Int, b), (Int, c))                                            \
  X(65, GetCarryingInfo, 0, (ValueOut, list))                                                     \
  X(82, OpenNetShare, kAnswersSharePath, (Text, shareClient), (Text, computerName), (Text, dbName),               \
    (Text, tableName), (Int, tIndex), (TextOut, folder))                                          \
  X(83, CloseNetShare, 0, (Text, dbName), (Text, tableName), (Int, tIndex))                       \
  X(93, RepricatOut, 0, (Text, dbName), (TextOut, fileName))                                      \
  X(94, RepricatIn, 0, (Text, dbName))                                                            \
  /* template book databases */                                                                   \
  X(84, GetOrgBookDBInfo, 0, (ValueOut, first), (ValueOut, second), (ValueOut, third))            \
  X(85, AddOrgBookDB, 0, (Text, a), (Text, b), (Text, c), (Int, d))                               \
  X(86, DeleteOrgBookDB, 0, (Int, a))                                                             \
  X(87, RenameOrgBookDB, 0, (Int, a), (Int, b))                                                   \
  /* server and system queries; the description comes back as a text, since an application's */ \
  /* raw buffer cannot cross a network */                                                         \
  X(41, GetServerFreeSpace, 0, (IntOut, freeSpace))                                               \
  X(58, GetServerInfo, 0, (TextOut, info))                                                        \
  X(68, GetOption, 0, (Int, kind), (TextInOut, text), (IntInOut, a), (IntInOut, b))               \
  X(72, ConnectCheck, 0)                                                                          \
  X(73, GetLastError, 0, (TextOut, message))                                                      \
  X(81, GetDatabaseSize, 0, (Text, dbName), (IntOut, size))                                       \
  X(95, GetDatabaseSize2, 0, (Text, dbName), (LongOut, size))                                     \
  X(96, CheckRecordableFolder, 0, (Text, folder))                                                 \
  X(98, CheckSQLServerType, 0)                                                                    \
  X(99, GetServerInfo2, 0, (IntOut, a), (IntOut, b), (IntOut, c), (IntOut, d))                    \
  X(100, GetOSVersion, 0, (IntOut, first), (IntOut, second))                                      \
  X(101, CheckOSType, 0, (IntOut, type))                                                          \
  X(102, GetServerModuleVersion, 0, (IntOut, v1), (IntOut, v2), (IntOut, v3), (IntOut, v4))

// A method's (kind, name) pairs mapped through f, comma-separated; up to nine.
#define MV_PP_CAT(a, b) MV_PP_CAT_(a, b)
#define MV_PP_CAT_(a, b) a##b
#define MV_PP_COUNT(...) MV_PP_COUNT_(__VA_ARGS__ __VA_OPT__(,) 9, 8, 7, 6, 5, 4, 3, 2, 1, 0)
#define MV_PP_COUNT_(_1, _2, _3, _4, _5, _6, _7, _8, _9, N, ...) N
#define MV_PP_MAP(f, ...) MV_PP_CAT(MV_PP_MAP_, MV_PP_COUNT(__VA_ARGS__))(f __VA_OPT__(,) __VA_ARGS__)
#define MV_PP_MAP_0(f)
#define MV_PP_MAP_1(f, a) f a
#define MV_PP_MAP_2(f, a, ...) f a, MV_PP_MAP_1(f, __VA_ARGS__)
#define MV_PP_MAP_3(f, a, ...) f a, MV_PP_MAP_2(f, __VA_ARGS__)
#define MV_PP_MAP_4(f, a, ...) f a, MV_PP_MAP_3(f, __VA_ARGS__)
#define MV_PP_MAP_5(f, a, ...) f a, MV_PP_MAP_4(f, __VA_ARGS__)
#define MV_PP_MAP_6(f, a, ...) f a, MV_PP_MAP_5(f, __VA_ARGS__)
#define MV_PP_MAP_7(f, a, ...) f a, MV_PP_MAP_6(f, __VA_ARGS__)
#define MV_PP_MAP_8(f, a, ...) f a, MV_PP_MAP_7(f, __VA_ARGS__)
#define MV_PP_MAP_9(f, a, ...) f a, MV_PP_MAP_8(f, __VA_ARGS__)

// Pieces of a (kind, name) pair.
#define MV_ARG_PARAM(kind, name) ::mv::ArgParam<::mv::ArgKind::kind> name
#define MV_ARG_KIND(kind, name) ::mv::ArgKind::kind
#define MV_ARG_REF(kind, name) \
  ::mv::ArgRef(std::in_place_type<::mv::ArgParam<::mv::ArgKind::kind>>, name)

// A method's C++ parameter list, for declaring and defining it.
#define MV_METHOD_PARAMS(...) MV_PP_MAP(MV_ARG_PARAM, __VA_ARGS__)
// clang-format on

namespace mv {

class IBookServer;

enum class ArgKind : uint8_t {
  Text,
  Handle,
  Int,
  GoodBytes,
  IntOut,
  IntInOut,
  LongOut,
  RealInOut,
  TextOut,
  TextInOut,
  HandleOut,
  Block16,
  Record,
  BlockIn,
  RowOut,
  BlockOut,
  ValueOut,
};

template <ArgKind K>
struct ArgType;
template <ArgKind K>
using ArgParam = typename ArgType<K>::type;
#define MV_ARG_TYPE(kind, ...)    \
  template <>                     \
  struct ArgType<ArgKind::kind> { \
    using type = __VA_ARGS__;     \
  };
MV_ARG_TYPE(Text, BSTR)
MV_ARG_TYPE(Handle, BSTR)
MV_ARG_TYPE(Int, int32_t)
MV_ARG_TYPE(GoodBytes, int32_t)
MV_ARG_TYPE(IntOut, int32_t*)
MV_ARG_TYPE(IntInOut, int32_t*)
MV_ARG_TYPE(LongOut, int64_t*)
MV_ARG_TYPE(RealInOut, double*)
MV_ARG_TYPE(TextOut, BSTR*)
MV_ARG_TYPE(TextInOut, BSTR*)
MV_ARG_TYPE(HandleOut, BSTR*)
MV_ARG_TYPE(Block16, uint8_t*)
MV_ARG_TYPE(Record, VARIANT*)
MV_ARG_TYPE(BlockIn, VARIANT*)
MV_ARG_TYPE(RowOut, VARIANT*)
MV_ARG_TYPE(BlockOut, VARIANT*)
MV_ARG_TYPE(ValueOut, VARIANT*)
#undef MV_ARG_TYPE

// Whether an argument only carries a result back: its value going in means nothing.
constexpr bool isOutOnly(ArgKind k) {
  switch (k) {
    case ArgKind::IntOut:
    case ArgKind::LongOut:
    case ArgKind::TextOut:
    case ArgKind::HandleOut:
    case ArgKind::Block16:
    case ArgKind::RowOut:
    case ArgKind::BlockOut:
    case ArgKind::ValueOut:
      return true;
    default:
      return false;
  }
}

// One argument of a call as the caller passed it.
using ArgRef = std::variant<BSTR, int32_t, int32_t*, int64_t*, double*, BSTR*, uint8_t*, VARIANT*>;

// Method flags.
// The handles of a deleted database are gone, and with them every row held for any handle.
inline constexpr uint32_t kForgetsAllRows = 1;
// Reads rows of an open handle (database, handle, first row, row): answered in runs of rows.
inline constexpr uint32_t kReadsRows = 2;
// Reads a blob block by block (database, handle, column, row, block number, block size, ...):
// the next blocks may be asked for before the caller asks.
inline constexpr uint32_t kReadsAhead = 4;
// Answers a folder path (its text-out arguments) that may name a share of the server:
// "\\<server>\<share>\...", for the client to reach through its file system.
inline constexpr uint32_t kAnswersSharePath = 8;

struct ServerMethod {
  int32_t number;
  const char* name;
  uint32_t flags;
  std::span<const ArgKind> args;
  // Calls the method on a server with arguments of the table's kinds.
  int32_t (*invoke)(IBookServer& server, const ArgRef* args);
};

// The row of a method by number; null for a number that is no method of the table.
const ServerMethod* findServerMethod(int32_t number);
// Every method of the table, in the table's order.
std::span<const ServerMethod* const> serverMethods();
// A digest of the numbers, kinds and flags of every method: two ends that agree on it agree on
// what every call carries.
uint64_t serverMethodsSignature();

}  // namespace mv
