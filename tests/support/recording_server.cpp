#include "recording_server.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "platform/wide.h"
#include "utf8.h"

namespace mvtest {

namespace {

template <typename T>
std::string num(T v) {
  return std::to_string(v);
}
const std::string kOut = "out";

std::string render(const VARIANT* v) {
  if (v == nullptr) return "null";
  if (v->vt == MV_VT_BSTR) return utf8(v->bstrVal);
  if ((v->vt & MV_VT_ARRAY) == 0 || v->parray == nullptr) return "vt" + num(v->vt);
  SAFEARRAY* a = v->parray;
  const uint32_t n = mv::safeArrayCount(a);
  if (mv::safeArrayElementType(a) == MV_VT_UI1) return "<" + num(n) + " bytes>";
  void* data = nullptr;
  if (mv::safeArrayAccessData(a, &data) != 0) return "locked";
  std::string s = "[";
  for (uint32_t i = 0; i < n; ++i) {
    if (i) s += '|';
    if (mv::safeArrayElementType(a) == MV_VT_BSTR) {
      s += utf8(static_cast<BSTR*>(data)[i]);
    } else {
      s += render(&static_cast<VARIANT*>(data)[i]);
    }
  }
  mv::safeArrayUnaccessData(a);
  return s + "]";
}

}  // namespace

std::string Call::text() const {
  std::string s = method + "(";
  for (std::size_t i = 0; i < args.size(); ++i) s += (i ? ", " : "") + args[i];
  return s + ")";
}

void RecordingServer::failNext(const std::string& method, int32_t status, int times) {
  for (int i = 0; i < times; ++i) scripted_[method].push_back(status);
}

void RecordingServer::queueResult(ResultRows rows) { queued_.push_back({std::move(rows)}); }

void RecordingServer::queueMalformedResult(int32_t rowCount) {
  queued_.push_back({{}, true, rowCount});
}

std::vector<std::string> RecordingServer::methods() const {
  std::vector<std::string> m;
  for (const Call& c : calls) m.push_back(c.method);
  return m;
}

int RecordingServer::count(const std::string& method) const {
  return static_cast<int>(
      std::count_if(calls.begin(), calls.end(), [&](const Call& c) { return c.method == method; }));
}

std::vector<std::string> RecordingServer::argsOf(const std::string& method, std::size_t arg) const {
  std::vector<std::string> out;
  for (const Call& c : calls) {
    if (c.method == method) out.push_back(c.args.at(arg));
  }
  return out;
}

std::string RecordingServer::log() const {
  std::string s;
  for (const Call& c : calls) s += c.text() + "\n";
  return s;
}

namespace {

std::string renderArg(mv::ArgKind kind, const mv::ArgRef& arg) {
  using K = mv::ArgKind;
  switch (kind) {
    case K::Text:
    case K::Handle:
      return utf8(std::get<BSTR>(arg));
    case K::Int:
    case K::GoodBytes:
      return num(std::get<int32_t>(arg));
    case K::IntInOut: {
      const int32_t* p = std::get<int32_t*>(arg);
      return p ? num(*p) : "null";
    }
    case K::RealInOut: {
      const double* p = std::get<double*>(arg);
      return p ? num(*p) : "null";
    }
    case K::TextInOut: {
      const BSTR* p = std::get<BSTR*>(arg);
      return p && *p ? utf8(*p) : "";
    }
    case K::Record:
    case K::BlockIn:
      return render(std::get<VARIANT*>(arg));
    default:
      return {};
  }
}

template <typename T>
T as(std::span<const mv::ArgRef> args, std::size_t i) {
  return std::get<T>(args[i]);
}

}  // namespace

int32_t RecordingServer::record(const mv::ServerMethod& method, std::span<const mv::ArgRef> args) {
  Call call{method.name, {}};
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (!mv::isOutOnly(method.args[i])) call.args.push_back(renderArg(method.args[i], args[i]));
  }
  calls.push_back(std::move(call));
  auto& queue = scripted_[method.name];
  if (!queue.empty()) {
    const int32_t status = queue.front();
    queue.pop_front();
    return status;
  }
  const auto it = always_.find(method.name);
  return it == always_.end() ? 0 : it->second;
}

int32_t RecordingServer::forward(const mv::ServerMethod& method, std::span<const mv::ArgRef> args) {
  const int32_t status = record(method, args);
  return status != 0 ? status : act(method.number, args);
}

int32_t RecordingServer::openResult(int32_t* rowCount, BSTR* handle) {
  Result result;
  if (!queued_.empty()) {
    result = std::move(queued_.front());
    queued_.pop_front();
  }
  const std::string h = "H" + num(++handles_);
  if (rowCount) {
    *rowCount = result.malformed ? result.malformedCount : static_cast<int32_t>(result.rows.size());
  }
  putText(handle, h);
  open_[h] = std::move(result);
  return 0;
}

int32_t RecordingServer::getRecords(const std::string& handle, int32_t rowIndex, VARIANT* row) {
  const auto it = open_.find(handle);
  if (it == open_.end()) return 1;
  const Result& r = it->second;
  if (r.malformed) {
    MVVariantClear(row);
    row->vt = MV_VT_I4;
    row->lVal = 0;
    return 0;
  }
  if (rowIndex < 0 || static_cast<std::size_t>(rowIndex) >= r.rows.size()) return 1;
  putTexts(row, r.rows[static_cast<std::size_t>(rowIndex)]);
  return 0;
}

int32_t RecordingServer::downLoad(int32_t blockNo, VARIANT* block, int32_t* isEnd) {
  const std::size_t start = static_cast<std::size_t>(blockNo - 1) * downloadChunk;
  if (start >= download.size()) return 0;  // nothing (more) to send: no array
  const std::size_t n = std::min(downloadChunk, download.size() - start);
  mv::fillVariantArray(block, MV_VT_UI1, static_cast<uint32_t>(n), [&](void* data) {
    if (n) std::memcpy(data, download.data() + start, n);
  });
  if (isEnd) *isEnd = flagEndOnLastBlock && start + n >= download.size() ? 1 : 0;
  return 0;
}

// Positions are the arguments' places in the method table's rows.
int32_t RecordingServer::act(int32_t number, std::span<const mv::ArgRef> args) {
  switch (number) {
    case 24:  // ExecuteQuery
    case 60:  // OpenTableEx
      return openResult(as<int32_t*>(args, 4), as<BSTR*>(args, 5));
    case 46:  // OpenTable
      return openResult(as<int32_t*>(args, 3), as<BSTR*>(args, 4));
    case 25:  // GetRecords
      return getRecords(utf8(as<BSTR>(args, 1)), as<int32_t>(args, 2), as<VARIANT*>(args, 3));
    case 47:  // CloseTable
      open_.erase(utf8(as<BSTR>(args, 1)));
      return 0;
    case 19:  // AddRecord
      if (int32_t* index = as<int32_t*>(args, 3)) *index = nextIndex++;
      return 0;
    case 26:  // DownLoadData
      return downLoad(as<int32_t>(args, 4), as<VARIANT*>(args, 6), as<int32_t*>(args, 7));
    case 40: {  // UpLoadData
      const VARIANT* block = as<VARIANT*>(args, 3);
      const int32_t bytes = as<int32_t>(args, 2);
      if (block && block->parray && bytes > 0) {
        const auto* p = static_cast<const uint8_t*>(block->parray->pvData);
        uploaded.insert(uploaded.end(), p, p + bytes);
      }
      return 0;
    }
    case 76: {  // ImageFileDate
      double* date = as<double*>(args, 4);
      const int32_t op = as<int32_t>(args, 2);
      if (date != nullptr && op == 0) *date = fileDate;
      if (date != nullptr && op == 1) fileDate = *date;
      return 0;
    }
    case 31: {  // SetMutex
      const auto it = mutexAnswers.find(utf8(as<BSTR>(args, 0)));
      return it == mutexAnswers.end() ? 0 : it->second;
    }
    case 48: {  // SetCounter
      const auto it = counters.find(utf8(as<BSTR>(args, 0)));
      int32_t* value = as<int32_t*>(args, 2);
      if (as<int32_t>(args, 1) == 0 && value != nullptr && it != counters.end())
        *value = it->second;
      return 0;
    }
    case 34: {  // GetLoginUsers
      VARIANT* list = as<VARIANT*>(args, 0);
      int32_t* count = as<int32_t*>(args, 1);
      if (list == nullptr || count == nullptr) return 0;
      std::vector<std::string> texts;
      for (const auto& [user, text] : loginUsers) {
        texts.push_back(user);
        texts.push_back(text);
      }
      putTexts(list, texts);
      *count = static_cast<int32_t>(loginUsers.size());
      return 0;
    }
    case 35:  // GetConnect
      *as<int32_t*>(args, 0) = connectFirst;
      *as<int32_t*>(args, 1) = connectSecond;
      return 0;
    case 82:  // OpenNetShare
      putText(as<BSTR*>(args, 5), shareFolder);
      return 0;
    case 58:  // GetServerInfo
      putText(as<BSTR*>(args, 0), serverInfo);
      return 0;
    case 68: {  // GetOption
      const int32_t kind = as<int32_t>(args, 0);
      const auto it = optionValues.find(kind);
      if (it != optionValues.end()) {
        *as<int32_t*>(args, 2) = it->second.first;
        *as<int32_t*>(args, 3) = it->second.second;
      }
      putText(as<BSTR*>(args, 1), "option " + num(kind));
      return 0;
    }
    case 73:  // GetLastError
      putText(as<BSTR*>(args, 0), lastErrorText);
      return 0;
    default:
      return 0;
  }
}

void RecordingServer::Release() {
  calls.push_back({"Release", {}});
  released = true;
  if (throwOnRelease) throw std::runtime_error("peer gone");
}

}  // namespace mvtest
