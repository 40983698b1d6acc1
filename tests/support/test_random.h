/*
 * Random test inputs that repeat from run to run: a seeded generator, and a
 * test's seeds, taken from an environment variable when it is set (to rerun
 * one failing seed) and otherwise a fixed set, so that every run checks the
 * same inputs.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <vector>

namespace testrand {

inline std::vector<uint32_t> Seeds(const char *envVar, std::vector<uint32_t> fixed) {
   const char *env = getenv(envVar);
   if (env != nullptr && *env != '\0') {
      return {(uint32_t)strtoul(env, nullptr, 0)};
   }
   return fixed;
}

class Rng {
public:
   explicit Rng(uint32_t seed) : gen_(seed) {}
   uint32_t Below(uint32_t n) { return n == 0 ? 0 : (uint32_t)(gen_() % n); }
   bool Chance(uint32_t percent) { return Below(100) < percent; }
   bool OneIn(uint32_t n) { return Below(n) == 0; }
   uint8_t Byte() { return (uint8_t)Below(256); }
   template <typename T, size_t N> const T &Pick(const T (&pool)[N]) { return pool[Below(N)]; }

private:
   std::mt19937 gen_;
};

} // namespace testrand
