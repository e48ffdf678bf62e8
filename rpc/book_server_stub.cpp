#include "rpc/book_server_stub.h"

#include <climits>
#include <deque>
#include <memory>
#include <vector>

#include "platform/wide.h"
#include "rpc/convert.h"
#include "rpc/files_stub.h"

namespace mv::rpc {

namespace {

// Rows of a handle from `first` on: at most `count`, none from the first one that fails, and
// none once the texts pass the answer's budget. The status is the first row's.
int32_t answerRows(IBookServer& session, BSTR db, BSTR handle, int64_t first, uint64_t count,
                   BookServer::CallResults::Builder results) {
  std::deque<Variant> rows;
  int32_t status = 0;
  std::size_t bytes = 0;
  for (uint64_t i = 0;
       i < count && bytes < kRowBytesPerAnswer && first + static_cast<int64_t>(i) <= INT32_MAX;
       ++i) {
    Variant& row = rows.emplace_back();
    const int32_t s = session.GetRecords(
        db, handle, static_cast<int32_t>(first + static_cast<int64_t>(i)), row.get());
    if (s != 0) {
      rows.pop_back();
      if (i == 0) status = s;
      break;
    }
    bytes += rowBytes(row.get());
  }
  auto list = results.initRows(static_cast<unsigned>(rows.size()));
  for (unsigned i = 0; i < rows.size(); ++i) copyRow(rows[i].get(), list[i]);
  return status;
}

}  // namespace

BookServerStub::BookServerStub(IBookServer* session, std::shared_ptr<fs::FileSystem> files)
    : session_(session), files_(std::move(files)) {}

kj::Promise<void> BookServerStub::files(FilesContext context) {
  context.getResults().setFiles(makeFilesStub(files_));
  return kj::READY_NOW;
}

BookServerStub::~BookServerStub() = default;

kj::Promise<void> BookServerStub::call(CallContext context) {
  const auto params = context.getParams();
  auto results = context.getResults();
  const ServerMethod* method = findServerMethod(params.getMethod());
  if (method == nullptr) {
    results.setStatus(kStatusUnknownMethod);
    return kj::READY_NOW;
  }
  const auto args = params.getArgs();
  const std::size_t n = method->args.size();
  bool fit = args.size() == n;
  for (std::size_t i = 0; fit && i < n; ++i) {
    fit = rpc::fits(method->args[i], args[static_cast<unsigned>(i)], true);
  }
  if (!fit) {
    results.setStatus(kStatusBadArguments);
    return kj::READY_NOW;
  }

  const auto held = std::make_unique<HeldArg[]>(n);
  std::vector<ArgRef> refs;
  refs.reserve(n);
  for (std::size_t i = 0; i < n; ++i) {
    if (!held[i].load(method->args[i], args[static_cast<unsigned>(i)])) {
      results.setStatus(kStatusOutOfMemory);
      return kj::READY_NOW;
    }
    refs.push_back(held[i].ref(method->args[i]));
  }

  int32_t status = 0;
  if ((method->flags & kReadsRows) != 0) {
    // (database, handle, first row, row): the row travels in the answer's rows.
    status = answerRows(*session_, std::get<BSTR>(refs[0]), std::get<BSTR>(refs[1]),
                        std::get<int32_t>(refs[2]), params.getRows(), results);
  } else {
    status = method->invoke(*session_, refs.data());
    // A result just opened brings its first rows along; its database is the first argument.
    for (std::size_t i = 0; status == 0 && params.getRows() > 0 && i < n; ++i) {
      if (method->args[i] != ArgKind::HandleOut) continue;
      BSTR* handle = std::get<BSTR*>(refs[i]);
      if (handle != nullptr) {
        answerRows(*session_, std::get<BSTR>(refs[0]), *handle, 0, params.getRows(), results);
      }
    }
  }
  results.setStatus(status);
  auto out = results.initArgs(static_cast<unsigned>(n));
  for (std::size_t i = 0; i < n; ++i) held[i].store(method->args[i], out[static_cast<unsigned>(i)]);
  return kj::READY_NOW;
}

}  // namespace mv::rpc
