#include "rpc_test_client.h"

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

BookServer::Client Client::login(const std::string& token) {
  auto request = gate().loginRequest();
  request.setToken(token);
  return wire_.wait(request.send()).getServer();
}

void Client::disconnect() {
  rpc_ = nullptr;
  stream_ = nullptr;
  tls_ = nullptr;
}

kj::Promise<void> Client::onDisconnect() { return rpc_->onDisconnect(); }

namespace {

template <typename Results>
Opened opened(Results r) {
  Opened o;
  o.status = r.getStatus();
  o.rowCount = r.getRowCount();
  o.handle = text(r.getHandle());
  for (const auto row : r.getRows()) {
    std::vector<std::string> elements;
    for (const auto e : row.getElements()) elements.push_back(text(e));
    o.rows.push_back(std::move(elements));
  }
  return o;
}

}  // namespace

Opened openTable(Wire& wire, BookServer::Client& s, std::string_view db, std::string_view table,
                 uint32_t prefetch) {
  auto request = s.openTableRequest();
  request.setDbName(U16(db));
  request.setTableName(U16(table));
  request.setMode(0);
  request.setPrefetch(prefetch);
  return opened(wire.wait(request.send()));
}

Opened executeQuery(Wire& wire, BookServer::Client& s, std::string_view db, std::string_view sql,
                    uint32_t prefetch) {
  auto request = s.executeQueryRequest();
  request.setDbName(U16(db));
  request.setTableName(U16(""));
  request.setSql(U16(sql));
  request.setPrefetch(prefetch);
  return opened(wire.wait(request.send()));
}

int32_t openDatabase(Wire& wire, BookServer::Client& s, std::string_view db, int32_t mode) {
  auto request = s.openDatabaseRequest();
  request.setDbName(U16(db));
  request.setMode(mode);
  return wire.wait(request.send()).getStatus();
}

int32_t addRecord(Wire& wire, BookServer::Client& s, std::string_view db, std::string_view handle,
                  const std::vector<std::string>& fields, int32_t* newIndex) {
  auto request = s.addRecordRequest();
  request.setDbName(U16(db));
  auto record = request.initRecord(static_cast<unsigned>(fields.size() + 1));
  record.set(0, U16("TABLENAME=" + std::string(handle)));
  for (std::size_t i = 0; i < fields.size(); ++i) {
    record.set(static_cast<unsigned>(i + 1), U16(fields[i]));
  }
  request.setRecordCount(1);
  const auto response = wire.wait(request.send());
  if (newIndex) *newIndex = response.getNewIndex();
  return response.getStatus();
}

int32_t setMutex(Wire& wire, BookServer::Client& s, std::string_view name, int32_t op) {
  auto request = s.setMutexRequest();
  request.setName(U16(name));
  request.setOp(op);
  return wire.wait(request.send()).getStatus();
}

}  // namespace mvtest::rpc
