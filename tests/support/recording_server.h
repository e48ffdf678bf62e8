// A server for tests: it records every call with its arguments and answers from a script, so
// that a test can state the exact sequence of server calls an export makes and inject the
// failure of any one of them.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "frame/IBookServer.h"

namespace mvtest {

// One call: method name and the arguments that go in, rendered as text (texts as UTF-8,
// integers in decimal, arrays of texts as "[a|b|c]", byte arrays as "<n bytes>", a null pointer
// as "null"); arguments that only carry a result back are left out.
struct Call {
  std::string method;
  std::vector<std::string> args;
  std::string text() const;  // "Method(a, b, c)"
};

class RecordingServer final : public mv::ForwardingServer {
 public:
  explicit RecordingServer(std::string name = "server") : name_(std::move(name)) {}
  ~RecordingServer() override = default;

  const std::string& name() const { return name_; }

  // --- the script --------------------------------------------------------------------------
  // The next `times` calls of `method` answer `status` (then the default again).
  void failNext(const std::string& method, int32_t status, int times = 1);
  // Every call of `method` answers `status` until changed.
  void answerAlways(const std::string& method, int32_t status) { always_[method] = status; }

  // Result sets, taken in order by each OpenTable, OpenTableEx or ExecuteQuery that succeeds;
  // once none is queued, an open gives an empty result. Each row is the list of element texts
  // (UTF-8 in the test, sent as UTF-16).
  using ResultRows = std::vector<std::vector<std::string>>;
  void queueResult(ResultRows rows);
  // A result whose rows come back as a variant that is not an array (with GetRecords status 0).
  void queueMalformedResult(int32_t rowCount);

  std::string lastErrorText;                                    // GetLastError
  std::string serverInfo;                                       // GetServerInfo
  int32_t connectFirst = 0, connectSecond = 0;                  // GetConnect
  std::map<int32_t, std::pair<int32_t, int32_t>> optionValues;  // GetOption kind -> (a, b)
  std::map<std::string, int32_t> mutexAnswers;                  // SetMutex name -> result
  std::map<std::string, int32_t> counters;                      // SetCounter op 0: name -> value
  int32_t nextIndex = 100;                                      // AddRecord's new T_Index
  // GetLoginUsers: the pairs (user name, second text) of the users logged on now.
  std::vector<std::pair<std::string, std::string>> loginUsers;

  // Blobs: what UpLoadData received (good bytes only), and what DownLoadData serves.
  std::vector<uint8_t> uploaded;
  std::vector<uint8_t> download;
  std::size_t downloadChunk = 0x4B000;  // bytes per DownLoadData answer
  bool flagEndOnLastBlock = true;       // else the end shows by a block without an array
  // ImageFileDate: op 0 answers fileDate, op 1 stores into it. OpenNetShare answers shareFolder.
  double fileDate = 0.0;
  std::string shareFolder;

  // --- what happened -----------------------------------------------------------------------
  std::vector<Call> calls;
  bool released = false;
  bool throwOnRelease = false;

  std::vector<std::string> methods() const;  // the method names in call order
  int count(const std::string& method) const;
  // Argument `arg` of every call of `method`, in call order.
  std::vector<std::string> argsOf(const std::string& method, std::size_t arg) const;
  // The calls rendered with text(), one per line: handy in failure messages.
  std::string log() const;

  void Release() override;

 protected:
  int32_t forward(const mv::ServerMethod& method, std::span<const mv::ArgRef> args) override;

 private:
  struct Result {
    ResultRows rows;
    bool malformed = false;
    int32_t malformedCount = 0;
  };
  // Records the call and gives its scripted status.
  int32_t record(const mv::ServerMethod& method, std::span<const mv::ArgRef> args);
  // What the server does with a call that succeeds.
  int32_t act(int32_t number, std::span<const mv::ArgRef> args);
  int32_t openResult(int32_t* rowCount, BSTR* handle);
  int32_t getRecords(const std::string& handle, int32_t rowIndex, VARIANT* row);
  int32_t downLoad(int32_t blockNo, VARIANT* block, int32_t* isEnd);

  std::string name_;
  std::map<std::string, std::deque<int32_t>> scripted_;
  std::map<std::string, int32_t> always_;
  std::deque<Result> queued_;
  std::map<std::string, Result> open_;  // by handle text
  int handles_ = 0;
};

}  // namespace mvtest
