# Port Vigil: build, test and benchmark entry points.
#
#   make test    install what is missing, build, run every test in the
#                default build and again under AddressSanitizer + UBSan,
#                then the race test under ThreadSanitizer (make test-tsan)
#   make bench   build and run the data path benchmarks
#   make demo    build vigilsim and run examples/demo.vsim as readable text
#   make fault-sweep  rerun every scenario with each allocation and each
#                failable platform call failing in turn (docs/fault-sweep.md)

BUILD_DIR ?= build
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
CTEST_FLAGS ?= --output-on-failure -j $(JOBS) --timeout 300

.PHONY: all deps build build-asan build-tsan test test-default test-asan test-tsan bench demo fault-sweep clean

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
# traffic flowing from another thread.
TSAN_OPTIONS_RACE = halt_on_error=1 second_deadlock_stack=1
TSAN_TESTS = ^race\.|^(AgingWorld|AgingWorldRunning|AgingWorldInit|CpWorld|CpWorldInit|FilterLifecycle|RetiredFilter|VigilMigration)[A-Za-z]*\.

build-tsan: deps
	@cmake -S . -B $(BUILD_DIR)/tsan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DVIGIL_TSAN=ON >/dev/null
	@cmake --build $(BUILD_DIR)/tsan -j $(JOBS) --target race_tests module_tests load_tests

test-tsan: build-tsan
	@echo "== tests: ThreadSanitizer build, race, world and lifecycle tests"
	@cd $(BUILD_DIR)/tsan && TSAN_OPTIONS="$(TSAN_OPTIONS_RACE)" ctest $(CTEST_FLAGS) -R "$(TSAN_TESTS)"

test: test-default test-asan test-tsan

bench: deps
	@cmake -S . -B $(BUILD_DIR)/release -G Ninja -DCMAKE_BUILD_TYPE=Release -DVIGIL_DEBUG_CHECKS=OFF >/dev/null
	@cmake --build $(BUILD_DIR)/release -j $(JOBS) --target vigil_bench
	@$(BUILD_DIR)/release/bench/vigil_bench

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
