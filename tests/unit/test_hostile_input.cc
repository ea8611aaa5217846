// Hostile input through the real entry points: the fuzz targets' seed inputs
// (frames of every opcode, requests of every command, sequences of frames,
// requests and ticks), each mutated many times and fed as the fuzz targets
// feed them to the fuzz targets' world of populated tables. Every input lives
// in a buffer of exactly its length, so under the sanitizer build any read
// past what was received aborts the test; the tables must stay ordered and
// within their bounds.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <vector>

#include "db/ltr_db.h"
#include "db/md_ma.h"
#include "db/mep_mip.h"
#include "db/rmep_db.h"
#include "fuzz_world.h"

namespace {

using Bytes = std::vector<uint8_t>;

// The seed inputs of one fuzz target, in name order.
std::vector<Bytes> seeds(const std::string &target) {
  std::vector<std::filesystem::path> paths;
  for (const auto &entry : std::filesystem::directory_iterator(CFMD_FUZZ_CORPUS "/" + target)) {
    paths.push_back(entry.path());
  }
  std::sort(paths.begin(), paths.end());
  std::vector<Bytes> inputs;
  for (const auto &path : paths) {
    std::ifstream in(path, std::ios::binary);
    inputs.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  return inputs;
}

// A seed with up to eight bytes replaced, cut short half of the time.
Bytes mutate(const std::vector<Bytes> &seeds, std::mt19937 &rng) {
  Bytes input = seeds[rng() % seeds.size()];
  for (unsigned flips = rng() % 9; flips > 0 && !input.empty(); --flips) {
    // Length and offset fields are where parsers go wrong: favour extremes.
    input[rng() % input.size()] = rng() % 3 == 0 ? (rng() % 2 ? 0xFF : 0x00) : static_cast<uint8_t>(rng());
  }
  if (rng() % 2 == 0) input.resize(rng() % (input.size() + 1));
  return input;
}

void expect_tables_consistent() {
  uint32_t meps = 0;
  for (MepEntry mep{}, previous{}; CFM_GetNext_MEP_Entry(&mep) == 1; previous = mep, ++meps) {
    EXPECT_TRUE(meps == 0 || cfm_mep_key_compare(&mep, &previous, nullptr) > 0);
  }
  EXPECT_EQ(meps, CFM_Get_TotalMepEntries());
  EXPECT_LE(meps, static_cast<uint32_t>(CFM_MAX_MEP));
  for (MdEntry md{}, previous{}; CFM_GetNext_MD_Entry(&md) == 1; previous = md) {
    EXPECT_GT(md.MdIndex, previous.MdIndex);
    EXPECT_LT(md.MdLevel, 8);
  }
  EXPECT_LE(CFM_MEP_DB_RemEntry_Count(), static_cast<uint32_t>(CFM_MAX_REMOTE_MEP));
  EXPECT_LE(CFM_DB_Get_TotalLtrEntries(), static_cast<uint32_t>(CFM_MAX_LTR));
}

TEST(HostileInput, MutatedFuzzSeedsNeverReadPastTheirEndNorBreakTheTables) {
  setenv("CFMD_FUZZ_STDOUT", "1", 1);  // the test's own output stays
  fuzz_world::init();
  const struct {
    const char *target;
    void (*feed)(const uint8_t *, size_t);
    int runs;
  } targets[] = {{"frame", fuzz_world::frame_input, 30000},
                 {"request", fuzz_world::serve, 5000},
                 {"mixed", fuzz_world::mixed_input, 2000}};
  std::mt19937 rng(20261122);
  for (const auto &t : targets) {
    std::vector<Bytes> inputs = seeds(t.target);
    ASSERT_FALSE(inputs.empty()) << t.target;
    testing::internal::CaptureStdout();  // the engines' traces are dropped
    for (int i = 0; i < t.runs; ++i) {
      if (i % 64 == 0) fuzz_world::reset();
      Bytes input = mutate(inputs, rng);
      std::unique_ptr<uint8_t[]> exact(new uint8_t[input.size()]);
      std::copy(input.begin(), input.end(), exact.get());
      t.feed(exact.get(), input.size());
    }
    testing::internal::GetCapturedStdout();
    SCOPED_TRACE(t.target);
    expect_tables_consistent();
  }
}

}  // namespace
