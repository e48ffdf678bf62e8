// Shapes the client's tests build and read: records of texts, rows as texts, and a link that is
// released whatever the test's outcome.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "frame/IBookServer.h"
#include "platform/wide.h"
#include "rpc/remote_book_server.h"
#include "test_daemon.h"

namespace mvtest {

// An array of variants holding these texts, as the library sends records.
inline void makeTexts(mv::Variant& v, const std::vector<std::u16string>& texts) {
  ASSERT_TRUE(v.makeArray(MV_VT_VARIANT, static_cast<uint32_t>(texts.size())));
  auto* e = static_cast<VARIANT*>(v.get()->parray->pvData);
  for (std::size_t i = 0; i < texts.size(); ++i) {
    e[i].vt = MV_VT_BSTR;
    e[i].bstrVal = mv::Bstr(texts[i]).release();
  }
}

inline std::u16string text(BSTR s) {
  return s == nullptr ? std::u16string() : std::u16string(s, MVSysStringLen(s));
}

// The texts of a row variant; empty for anything that is not an array of text variants.
inline std::vector<std::u16string> rowTexts(const mv::Variant& v) {
  std::vector<std::u16string> out;
  const VARIANT* row = v.get();
  if (row->vt != (MV_VT_ARRAY | MV_VT_VARIANT) || row->parray == nullptr) return out;
  const auto* e = static_cast<const VARIANT*>(row->parray->pvData);
  for (uint32_t i = 0; i < mv::safeArrayCount(row->parray); ++i) {
    out.emplace_back(text(e[i].vt == MV_VT_BSTR ? e[i].bstrVal : nullptr));
  }
  return out;
}

inline std::vector<std::u16string> expectedRow(int row, int generation) {
  return {rowElement(row, 0, generation), rowElement(row, 1, generation)};
}

// One connection, released at the end of the scope.
class Link {
 public:
  Link() = default;
  explicit Link(const TestDaemon& daemon, mv::rpc::RemoteOptions options = {},
                std::string token = {}) {
    mv::rpc::ServerEndpoint e;
    e.address = "127.0.0.1";
    e.port = daemon.port();
    e.token = std::move(token);
    status_ = mv::rpc::connectRemote(e, options, &server_);
  }
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;
  ~Link() { release(); }

  void release() {
    if (server_ != nullptr) std::exchange(server_, nullptr)->Release();
  }
  int32_t status() const { return status_; }
  mv::IBookServer* operator->() const { return server_; }
  mv::IBookServer* get() const { return server_; }
  mv::rpc::RemoteBookServer* remote() const {
    return static_cast<mv::rpc::RemoteBookServer*>(server_);
  }

 private:
  mv::IBookServer* server_ = nullptr;
  int32_t status_ = -1;
};

}  // namespace mvtest
