// The cost of a look-up, a step of a walk and a write-back in the record store, by number of rows.
#include "bench_support.h"

#include "config_copy_mib.h"

#include <benchmark/benchmark.h>

namespace {

class Store : public benchmark::Fixture {
  public:
    void SetUp(const benchmark::State &state) override {
        rows = static_cast<int32_t>(state.range(0));
        bench::fill_rows(rows);
        indexes = bench::scattered_indexes(rows);
    }

    void TearDown(const benchmark::State &) override { bench::delete_rows(rows); }

  protected:
    int32_t rows = 0;
    std::vector<int32_t> indexes;
};

BENCHMARK_DEFINE_F(Store, get)(benchmark::State &state) {
    ccCopyEntry row = {};
    size_t at = 0;
    for (auto _ : state) {
        row.ccCopyIndex = indexes[at++ % indexes.size()];
        if (getCcCopyEntry(&row) != 0) {
            state.SkipWithError("row not found");
            break;
        }
        benchmark::DoNotOptimize(row);
    }
}

BENCHMARK_DEFINE_F(Store, getnext)(benchmark::State &state) {
    ccCopyEntry row = {};
    size_t at = 0;
    for (auto _ : state) {
        // The index before the row; 0 begins with the first row.
        row.ccCopyIndex = indexes[at++ % indexes.size()] - 1;
        if (getnextCcCopyEntry(&row) != 0) {
            state.SkipWithError("no next row");
            break;
        }
        benchmark::DoNotOptimize(row);
    }
}

BENCHMARK_DEFINE_F(Store, set)(benchmark::State &state) {
    ccCopyEntry row = {};
    row.ccCopyIndex = 1;
    if (getCcCopyEntry(&row) != 0) {
        state.SkipWithError("row not found");
        return;
    }
    size_t at = 0;
    for (auto _ : state) {
        row.ccCopyIndex = indexes[at++ % indexes.size()];
        if (setCcCopyEntry(&row, 0) != 0) {
            state.SkipWithError("row not found");
            break;
        }
    }
}

#define STORE_SIZES Arg(1)->Arg(100)->Arg(10'000)->Arg(100'000)->ArgName("rows")
BENCHMARK_REGISTER_F(Store, get)->STORE_SIZES;
BENCHMARK_REGISTER_F(Store, getnext)->STORE_SIZES;
BENCHMARK_REGISTER_F(Store, set)->STORE_SIZES;

} // namespace

int main(int argc, char **argv) {
    return bench::run(argc, argv, [] {});
}
