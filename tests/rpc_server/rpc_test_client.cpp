#include "rpc_test_client.h"

#include "frame/server_methods.h"
#include "rpc/convert.h"
#include "utf8.h"

namespace mvtest::rpc {

U16::U16(std::string_view utf8Text) {
  for (const char16_t unit : mvtest::utf16(utf8Text)) {
    bytes_.push_back(static_cast<capnp::byte>(unit & 0xFF));
    bytes_.push_back(static_cast<capnp::byte>(unit >> 8));
  }
}

std::string text(capnp::Data::Reader bytes) {
  std::u16string units;
  for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) {
    units.push_back(static_cast<char16_t>(bytes[i] | (bytes[i + 1] << 8)));
  }
  return mvtest::utf8(units);
}

std::string field(std::string_view name, int typecode, std::string_view value) {
  return "KEY=" + std::string(name) + "\t" + std::to_string(typecode) + "\t" + std::string(value);
}

std::string valueIn(const std::vector<std::string>& row, std::string_view name) {
  const std::string prefix = "KEY=" + std::string(name) + "\t";
  for (const std::string& e : row) {
    if (e.rfind(prefix, 0) != 0) continue;
    const auto tab = e.find('\t', prefix.size());
    return tab == std::string::npos ? "<malformed>" : e.substr(tab + 1);
  }
  return "<none>";
}

Wire::Wire() : io_(kj::setupAsyncIo()) {}

Wire::~Wire() noexcept = default;

Client::Client(Wire& wire, uint16_t port, const std::string& certPem) : wire_(wire) {
  auto address =
      wire.wait(wire.io().provider->getNetwork().parseAddress("127.0.0.1", port), 5 * kj::SECONDS);
  stream_ = wire.wait(address->connect(), 5 * kj::SECONDS);
  if (!certPem.empty()) {
    const kj::TlsCertificate trusted(certPem);
    kj::TlsContext::Options options;
    options.useSystemTrustStore = false;
    options.trustedCertificates = kj::arrayPtr(&trusted, 1);
    tls_ = kj::heap<kj::TlsContext>(kj::mv(options));
    stream_ = wire.wait(tls_->wrapClient(kj::mv(stream_), "localhost"), 10 * kj::SECONDS);
  }
  rpc_ = kj::heap<capnp::TwoPartyClient>(*stream_);
}

Client::~Client() noexcept = default;

Gate::Client Client::gate() { return rpc_->bootstrap().castAs<Gate>(); }

capnp::Response<Gate::LoginResults> Client::loginAs(const std::string& token, uint32_t wire,
                                                    uint64_t methods) {
  auto request = gate().loginRequest();
  request.setToken(token);
  request.setWire(wire);
  request.setMethods(methods);
  return wire_.wait(request.send());
}

BookServer::Client Client::login(const std::string& token) {
  return loginAs(token, mv::rpc::kWireFormat, mv::serverMethodsSignature()).getServer();
}

void Client::disconnect() {
  rpc_ = nullptr;
  stream_ = nullptr;
  tls_ = nullptr;
}

kj::Promise<void> Client::onDisconnect() { return rpc_->onDisconnect(); }

Answer call(Wire& wire, BookServer::Client& s, int32_t number, const std::vector<RawArg>& args,
            uint32_t rows) {
  auto request = s.callRequest();
  request.setMethod(number);
  request.setRows(rows);
  auto list = request.initArgs(static_cast<unsigned>(args.size()));
  for (unsigned i = 0; i < args.size(); ++i) {
    if (const auto* n = std::get_if<int32_t>(&args[i])) list[i].setInt(*n);
    if (const auto* t = std::get_if<std::string>(&args[i])) list[i].setText(U16(*t));
    if (const auto* t = std::get_if<std::vector<std::string>>(&args[i])) {
      auto texts = list[i].initTexts(static_cast<unsigned>(t->size()));
      for (unsigned j = 0; j < t->size(); ++j) texts.set(j, U16((*t)[j]));
    }
  }
  return wire.wait(request.send());
}

std::vector<std::vector<std::string>> rowsOf(const Answer& a) {
  std::vector<std::vector<std::string>> rows;
  for (const auto row : a.getRows()) {
    rows.emplace_back();
    for (const auto e : row.getElements()) rows.back().push_back(text(e));
  }
  return rows;
}

namespace {

// ExecuteQuery, OpenTable, OpenTableEx: the row count and the handle are their last two.
Opened opened(const Answer& a) {
  Opened o;
  o.status = a.getStatus();
  const auto args = a.getArgs();
  if (args.size() >= 2) {
    o.rowCount = args[args.size() - 2].isInt() ? args[args.size() - 2].getInt() : -1;
    o.handle = args[args.size() - 1].isText() ? text(args[args.size() - 1].getText()) : "";
  }
  o.rows = rowsOf(a);
  return o;
}

}  // namespace

Opened openTable(Wire& wire, BookServer::Client& s, std::string_view db, std::string_view table,
                 uint32_t prefetch) {
  return opened(
      call(wire, s, 46, {std::string(db), std::string(table), 0, 0, std::string()}, prefetch));
}

Opened executeQuery(Wire& wire, BookServer::Client& s, std::string_view db, std::string_view sql,
                    uint32_t prefetch) {
  return opened(call(wire, s, 24,
                     {std::string(db), std::string(), std::string(sql), 0, 0, std::string()},
                     prefetch));
}

Answer getRecords(Wire& wire, BookServer::Client& s, std::string_view db, std::string_view handle,
                  int32_t rowIndex, uint32_t count) {
  return call(wire, s, 25,
              {std::string(db), std::string(handle), rowIndex, std::vector<std::string>{}}, count);
}

int32_t openDatabase(Wire& wire, BookServer::Client& s, std::string_view db, int32_t mode) {
  return call(wire, s, 10, {std::string(db), mode, 0}).getStatus();
}

int32_t addRecord(Wire& wire, BookServer::Client& s, std::string_view db, std::string_view handle,
                  const std::vector<std::string>& fields, int32_t* newIndex) {
  std::vector<std::string> record{"TABLENAME=" + std::string(handle)};
  record.insert(record.end(), fields.begin(), fields.end());
  const auto answer = call(wire, s, 19, {std::string(db), record, 1, 0});
  if (newIndex != nullptr && answer.getArgs().size() == 4 && answer.getArgs()[3].isInt()) {
    *newIndex = answer.getArgs()[3].getInt();
  }
  return answer.getStatus();
}

int32_t setMutex(Wire& wire, BookServer::Client& s, std::string_view name, int32_t op) {
  return call(wire, s, 31, {std::string(name), op}).getStatus();
}

}  // namespace mvtest::rpc
