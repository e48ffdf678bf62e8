// Cost of the per-row work the library does on every listing: parsing a row of tagged texts
// through the code page into a fixed record.
#include <benchmark/benchmark.h>

#include <cstddef>

#include "MVCore.h"
#include "frame/exchange.h"

namespace {

struct CoverRow {
  int32_t T_Index;
  char BookName[260];
  char SiteName[255];
  int32_t StatureColor;
};
constexpr mv::FieldBinding kBindings[] = {MV_INT_FIELD(CoverRow, T_Index, "T_Index"),
                                          MV_TEXT_FIELD(CoverRow, BookName, "BookName"),
                                          MV_TEXT_FIELD(CoverRow, SiteName, "SiteName"),
                                          MV_INT_FIELD(CoverRow, StatureColor, "StatureColor")};

void BM_ParseAndBindRow(benchmark::State& state) {
  VARIANT v;
  MVVariantInit(&v);
  const char* texts[] = {"KEY=T_Index\t1\t1234", "KEY=BookName\t2\tBOOK1123101010",
                         "KEY=SiteName\t2\t\x8D\x91\x93\xB9\x31\x8D\x86\x90\xFC",
                         "KEY=StatureColor\t1\t255", "KEY=Reserve\t2\t"};
  v.parray = mv::safeArrayCreateVector(MV_VT_VARIANT, 0, 5);
  v.vt = MV_VT_ARRAY | MV_VT_VARIANT;
  void* data = nullptr;
  mv::safeArrayAccessData(v.parray, &data);
  for (int i = 0; i < 5; ++i) {
    auto& e = static_cast<VARIANT*>(data)[i];
    e.vt = MV_VT_BSTR;
    e.bstrVal = mv::toWide(texts[i]).release();
  }
  mv::safeArrayUnaccessData(v.parray);
  mv::Row row;
  CoverRow record{};
  for (auto _ : state) {
    mv::parseRowVariant(v, row);
    mv::bindRow(row, kBindings, &record);
    benchmark::DoNotOptimize(record);
  }
  MVVariantClear(&v);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ParseAndBindRow);

}  // namespace

BENCHMARK_MAIN();
