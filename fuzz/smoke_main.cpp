// usage: fuzz_NAME_smoke DIRECTORY COUNT
//
// Runs a fuzz target without a fuzzer: every seed of the directory, then COUNT
// mutations of them, the same ones every time. The input that makes the target fail is left
// next to the program, as fuzz_NAME.input.
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

#include "fuzz/fuzz_input.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr size_t kMaxInputBytes = 16384;

class Mutator {
 public:
  explicit Mutator(std::vector<Bytes> seeds) : seeds_(std::move(seeds)) {}

  Bytes Next() {
    Bytes bytes = seeds_[Below(seeds_.size())];
    for (size_t changes = 1 + Below(4); changes > 0; --changes) Change(&bytes);
    if (bytes.size() > kMaxInputBytes) bytes.resize(kMaxInputBytes);
    return bytes;
  }

 private:
  // The standard distributions differ between libraries.
  size_t Below(size_t bound) { return bound == 0 ? 0 : static_cast<size_t>(random_() % bound); }

  void Change(Bytes* bytes) {
    const size_t at = Below(bytes->size());
    const size_t count = std::min(bytes->size() - at, 1 + Below(16));
    const auto begin = bytes->begin() + static_cast<ptrdiff_t>(at);
    switch (Below(6)) {
      case 0:
        if (!bytes->empty()) (*bytes)[at] ^= static_cast<uint8_t>(1u << Below(8));
        break;
      case 1:
        if (!bytes->empty()) (*bytes)[at] = static_cast<uint8_t>(random_());
        break;
      case 2:
        bytes->erase(begin, begin + static_cast<ptrdiff_t>(count));
        break;
      case 3:
        bytes->resize(at);
        break;
      case 4: {  // A piece of any seed.
        const Bytes& other = seeds_[Below(seeds_.size())];
        const size_t from = Below(other.size());
        const size_t size = std::min(other.size() - from, 1 + Below(32));
        const auto piece = other.begin() + static_cast<ptrdiff_t>(from);
        bytes->insert(begin, piece, piece + static_cast<ptrdiff_t>(size));
        break;
      }
      default: {  // A number at a limit.
        static constexpr uint64_t kLimits[] = {0,          1,          0x7f,      0xff,
                                               0x7fffffff, UINT64_MAX, 1ull << 63};
        const uint64_t value = kLimits[Below(std::size(kLimits))];
        const size_t size = std::min({size_t{1} << Below(4), bytes->size() - at, sizeof value});
        if (size > 0) memcpy(&(*bytes)[at], &value, size);
      }
    }
  }

  const std::vector<Bytes> seeds_;
  std::mt19937 random_{42};
};

// Writes the input first, so that a crash of any kind leaves it behind.
void Run(const Bytes& input, const std::string& kept) {
  std::ofstream(kept, std::ios::binary)
      .write(reinterpret_cast<const char*>(input.data()),
             static_cast<std::streamsize>(input.size()));
  LLVMFuzzerTestOneInput(input.data(), input.size());
}

std::vector<Bytes> ReadSeeds(const char* directory) {
  std::vector<std::filesystem::path> paths;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    paths.push_back(entry.path());
  }
  std::sort(paths.begin(), paths.end());
  std::vector<Bytes> seeds = {Bytes()};
  for (const std::filesystem::path& path : paths) {
    std::ifstream file(path, std::ios::binary);
    seeds.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  }
  return seeds;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: %s DIRECTORY COUNT\n", argv[0]);
    return 2;
  }
  const std::vector<Bytes> seeds = ReadSeeds(argv[1]);
  if (seeds.size() < 2) {
    fprintf(stderr, "no seeds in %s\n", argv[1]);
    return 1;
  }
  LLVMFuzzerInitialize(&argc, &argv);
  const std::string kept = std::string(argv[0]) + ".input";
  for (const Bytes& seed : seeds) Run(seed, kept);
  Mutator mutator(seeds);
  for (long left = strtol(argv[2], nullptr, 10); left > 0; --left) Run(mutator.Next(), kept);
  std::filesystem::remove(kept);
  return 0;
}
