# Port Vigil: build, test and benchmark entry points.
#
#   make test    install what is missing, build, run every test in the
#                default build and again under AddressSanitizer + UBSan,
#                then the race test under ThreadSanitizer (make test-tsan)
#   make bench   build an optimised copy (no debug checks) and print the
#                data path benchmarks as one table, also written as JSON
#   make demo    build vigilsim and run examples/demo.vsim as readable text
#   make fuzz    build the libFuzzer harnesses with clang-14 and run each for
#                FUZZ_SECONDS (600), printing executions and coverage
#   make fault-sweep  rerun every scenario with each allocation and each
#                failable platform call failing in turn (docs/fault-sweep.md)

BUILD_DIR ?= build
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
CTEST_FLAGS ?= --output-on-failure -j $(JOBS) --timeout 300

.PHONY: all deps build build-asan build-tsan build-fuzz test test-default test-asan test-tsan \
        test-fuzz fuzz bench demo fault-sweep clean

all: build

deps:
	@sh scripts/install-deps.sh

build: deps
	@cmake -S . -B $(BUILD_DIR)/default -G Ninja -DCMAKE_BUILD_TYPE=Debug >/dev/null
	@cmake --build $(BUILD_DIR)/default -j $(JOBS)

build-asan: deps
	@cmake -S . -B $(BUILD_DIR)/asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DVIGIL_SANITIZE=ON >/dev/null
	@cmake --build $(BUILD_DIR)/asan -j $(JOBS)

test-default: build
	@echo "== tests: default build"
	@cd $(BUILD_DIR)/default && ctest $(CTEST_FLAGS)

test-asan: build-asan
	@echo "== tests: AddressSanitizer + UndefinedBehaviorSanitizer build"
	@cd $(BUILD_DIR)/asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
	   UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 ctest $(CTEST_FLAGS)

# ThreadSanitizer: the race test (property writes racing with traffic on
# one port), the tests of the two worlds and of the filter lifecycle, where
# the worlds, the clean-up and the callbacks meet, and the live upgrade with
# traffic flowing from another thread; and vigild's agent fed and read from
# several threads.
TSAN_OPTIONS_RACE = halt_on_error=1 second_deadlock_stack=1
TSAN_TESTS = ^race\.|^(AgingWorld|AgingWorldRunning|AgingWorldInit|CpWorld|CpWorldInit|FilterLifecycle|RetiredFilter|VigilMigration)[A-Za-z]*\.|^vigild\.AgentThreads\.

build-tsan: deps
	@cmake -S . -B $(BUILD_DIR)/tsan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DVIGIL_TSAN=ON >/dev/null
	@cmake --build $(BUILD_DIR)/tsan -j $(JOBS) --target race_tests module_tests load_tests vigild_agent_tests

test-tsan: build-tsan
	@echo "== tests: ThreadSanitizer build, race, world and lifecycle tests"
	@cd $(BUILD_DIR)/tsan && TSAN_OPTIONS="$(TSAN_OPTIONS_RACE)" ctest $(CTEST_FLAGS) -R "$(TSAN_TESTS)"

# libFuzzer harnesses (fuzz/), in build/fuzz with clang-14: each runs in
# turn; a crash, leak, invariant failure or timeout fails the target.
FUZZ_SECONDS ?= 600
FUZZ_HARNESSES = packet_loop dhcp dhcpv6 nd property mgmt restore

build-fuzz: deps
	@CC=clang-14 CXX=clang++-14 cmake -S . -B $(BUILD_DIR)/fuzz -G Ninja \
	   -DCMAKE_BUILD_TYPE=Debug -DVIGIL_FUZZ=ON >/dev/null
	@cmake --build $(BUILD_DIR)/fuzz -j $(JOBS) --target $(addprefix fuzz_,$(FUZZ_HARNESSES))

fuzz: build-fuzz
	@echo "== fuzzing: each harness for $(FUZZ_SECONDS) s"
	@sh fuzz/run_fuzzers.sh $(BUILD_DIR)/fuzz $(FUZZ_SECONDS) $(FUZZ_HARNESSES)

# From the committed seeds only, so that what make fuzz has gathered
# doesn't take the 20 s to replay.
test-fuzz: build-fuzz
	@echo "== fuzzing: each harness for 20 s"
	@rm -rf $(BUILD_DIR)/fuzz/test
	@FUZZ_WORK=$(BUILD_DIR)/fuzz/test sh fuzz/run_fuzzers.sh $(BUILD_DIR)/fuzz 20 $(FUZZ_HARNESSES)

test: test-default test-asan test-tsan test-fuzz

bench: deps
	@cmake -S . -B $(BUILD_DIR)/release -G Ninja -DCMAKE_BUILD_TYPE=Release -DVIGIL_DEBUG_CHECKS=OFF >/dev/null
	@cmake --build $(BUILD_DIR)/release -j $(JOBS) --target vigil_bench
	@python3 scripts/bench.py $(BUILD_DIR)/release/bench/vigil_bench $(BUILD_DIR)/release/bench/bench.json

demo: deps
	@cmake -S . -B $(BUILD_DIR)/default -G Ninja -DCMAKE_BUILD_TYPE=Debug >/dev/null
	@cmake --build $(BUILD_DIR)/default -j $(JOBS) --target vigilsim
	@$(BUILD_DIR)/default/tools/vigilsim --text examples/demo.vsim

FAULT_SWEEP_JOBS ?= 2

fault-sweep: deps
	@cmake -S . -B $(BUILD_DIR)/default -G Ninja -DCMAKE_BUILD_TYPE=Debug >/dev/null
	@cmake --build $(BUILD_DIR)/default -j $(JOBS) --target vigilsim
	@python3 scripts/fault-sweep.py --vigilsim $(BUILD_DIR)/default/tools/vigilsim --jobs $(FAULT_SWEEP_JOBS)

clean:
	rm -rf $(BUILD_DIR)

# make bench-lab (as root): vigild against the Linux bridge on a veth lab,
# packets per second and ping latency (scripts/bench-lab.sh).
.PHONY: bench-lab
bench-lab: deps
	@BENCH_LAB_BUILD=$(abspath $(BUILD_DIR))/release JOBS=$(JOBS) sh scripts/bench-lab.sh
