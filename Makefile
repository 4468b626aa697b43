# Entry points. `make run` and `make test` install what is missing first.
BUILD      ?= build
ASAN_BUILD ?= build-asan
TSAN_BUILD ?= build-tsan
JOBS       ?= $(shell nproc)
CTEST_JOBS ?= $(JOBS)
FUZZ_SECONDS ?= 60
ARGS ?=

CONFIGURE = cmake -S . -DCMAKE_BUILD_TYPE=RelWithDebInfo -Wno-dev

.PHONY: all deps build run test test-unit test-asan test-tsan test-interop test-cluster test-browser test-install fuzz bench install clean

all: build

deps:
	@scripts/install-deps

build: deps
	@$(CONFIGURE) -B $(BUILD) >/dev/null
	cmake --build $(BUILD) -j$(JOBS)

run: build
	$(BUILD)/korvane-bayeux $(ARGS)

# Everything: unit tests, the ASan+UBSan build, the TSan concurrency tests, the real
# clients and the browser against the server, the installed-tree build, the fuzz run.
test: deps
	$(MAKE) --no-print-directory test-unit
	$(MAKE) --no-print-directory test-interop
	$(MAKE) --no-print-directory test-cluster
	$(MAKE) --no-print-directory test-browser
	$(MAKE) --no-print-directory test-install
	$(MAKE) --no-print-directory test-asan
	$(MAKE) --no-print-directory test-tsan
	$(MAKE) --no-print-directory fuzz

test-unit:
	@$(CONFIGURE) -B $(BUILD) >/dev/null
	cmake --build $(BUILD) -j$(JOBS)
	cd $(BUILD) && ctest --output-on-failure -j$(CTEST_JOBS)

test-asan:
	@$(CONFIGURE) -B $(ASAN_BUILD) -DKORVANE_SANITIZE=address,undefined -DKORVANE_BUILD_BENCH=OFF >/dev/null
	cmake --build $(ASAN_BUILD) -j$(JOBS)
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --output-on-failure -j$(CTEST_JOBS)

# The suites that exercise real threads are named *Concurrency.
test-tsan:
	@$(CONFIGURE) -B $(TSAN_BUILD) -DKORVANE_SANITIZE=thread -DKORVANE_BUILD_BENCH=OFF >/dev/null
	cmake --build $(TSAN_BUILD) -j$(JOBS)
	cd $(TSAN_BUILD) && TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
	  ctest --output-on-failure -j$(CTEST_JOBS) -R 'Concurrency\.'

# The cometd client (npm) over long-polling and websocket against the server.
test-interop:
	KORVANE_SERVER=$(abspath $(BUILD))/korvane-bayeux node --test --test-concurrency=1 tests/interop/

# Three servers sharing their channels through a throw-away redis-server.
test-cluster:
	KORVANE_SERVER=$(abspath $(BUILD))/korvane-bayeux node --test --test-concurrency=1 tests/cluster/

# Headless Chromium on the demo page; screenshots go to $(BUILD)/browser/.
test-browser:
	KORVANE_SERVER=$(abspath $(BUILD))/korvane-bayeux KORVANE_ARTIFACTS=$(abspath $(BUILD))/browser \
	  node --test --test-concurrency=1 tests/browser/

# `make install` into a scratch prefix, and the embedding example built from it alone.
test-install:
	rm -rf $(BUILD)/install-test
	cmake --install $(BUILD) --prefix $(abspath $(BUILD))/install-test/prefix >/dev/null
	cmake -S examples -B $(BUILD)/install-test/build -DCMAKE_PREFIX_PATH=$(abspath $(BUILD))/install-test/prefix \
	  -DCMAKE_BUILD_TYPE=RelWithDebInfo -Wno-dev >/dev/null
	cmake --build $(BUILD)/install-test/build -j$(JOBS)
	$(BUILD)/install-test/build/embedded_chat --check

fuzz: deps
	FUZZ_SECONDS=$(FUZZ_SECONDS) scripts/fuzz

bench: build
	@for b in $(BUILD)/bench/bench_*; do echo "== $$b"; $$b --benchmark_min_time=0.2 || exit 1; done

install: build
	cmake --install $(BUILD) $(if $(PREFIX),--prefix $(PREFIX))

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(TSAN_BUILD) build-fuzz
