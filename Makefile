# Entry points. `make run` and `make test` install what is missing first.
BUILD      ?= build
ASAN_BUILD ?= build-asan
TSAN_BUILD ?= build-tsan
JOBS       ?= $(shell nproc)
CTEST_JOBS ?= $(JOBS)
FUZZ_SECONDS ?= 60
SOAK_SECONDS ?= 3600
ASAN_ENV = ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
TSAN_ENV = TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:suppressions=$(abspath tests/tsan.supp)
ARGS ?=

# Line tables only (-g1): backtraces, sanitizer reports and perf keep their file and line,
# and a clean build of this tree takes 4m51s instead of 6m17s on two cores (the Beast
# translation units spend a third of their time writing full debug info).
CONFIGURE = cmake -S . -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O2 -g1 -DNDEBUG" -Wno-dev
# The sanitizer builds trade optimisation for build time as well: their Beast translation
# units are the slowest. They leave out the benchmarks and the load generator, which they
# never run.
SANITIZE_FLAGS = -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g1" -DKORVANE_BUILD_BENCH=OFF -DKORVANE_BUILD_LOAD=OFF

.PHONY: all deps build run test test-unit test-asan test-tsan test-interop test-interop-sanitized test-cluster test-browser test-load-smoke test-load-sanitized test-soak test-memory test-install fuzz fuzz-long bench bench-load bench-cluster soak install clean test-package

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
	$(MAKE) --no-print-directory test-load-smoke
	$(MAKE) --no-print-directory test-soak
	$(MAKE) --no-print-directory test-memory
	$(MAKE) --no-print-directory test-install
	$(MAKE) --no-print-directory test-package
	$(MAKE) --no-print-directory test-asan
	$(MAKE) --no-print-directory test-tsan
	$(MAKE) --no-print-directory test-interop-sanitized
	$(MAKE) --no-print-directory test-load-sanitized
	$(MAKE) --no-print-directory fuzz

test-unit:
	@$(CONFIGURE) -B $(BUILD) >/dev/null
	cmake --build $(BUILD) -j$(JOBS)
	cd $(BUILD) && ctest --output-on-failure -j$(CTEST_JOBS)

test-asan:
	@$(CONFIGURE) -B $(ASAN_BUILD) -DKORVANE_SANITIZE=address,undefined $(SANITIZE_FLAGS) >/dev/null
	cmake --build $(ASAN_BUILD) -j$(JOBS)
	cd $(ASAN_BUILD) && $(ASAN_ENV) \
	  ctest --output-on-failure -j$(CTEST_JOBS)

# The suites that exercise real threads are named *Concurrency.
test-tsan:
	@$(CONFIGURE) -B $(TSAN_BUILD) -DKORVANE_SANITIZE=thread $(SANITIZE_FLAGS) >/dev/null
	cmake --build $(TSAN_BUILD) -j$(JOBS)
	cd $(TSAN_BUILD) && $(TSAN_ENV) \
	  ctest --output-on-failure -j$(CTEST_JOBS) -R 'Concurrency\.'

# The cometd client (npm) over long-polling and websocket against the server.
test-interop:
	KORVANE_SERVER=$(abspath $(BUILD))/korvane-bayeux node --test --test-concurrency=1 tests/interop/

# The same clients against the sanitizer builds of the server: a report fails the run.
test-interop-sanitized:
	KORVANE_SERVER=$(abspath $(ASAN_BUILD))/korvane-bayeux \
	  $(ASAN_ENV) \
	  node --test --test-concurrency=1 tests/interop/
	KORVANE_SERVER=$(abspath $(TSAN_BUILD))/korvane-bayeux $(TSAN_ENV) \
	  node --test --test-concurrency=1 tests/interop/

# Three servers sharing their channels through a throw-away redis-server.
test-cluster:
	KORVANE_SERVER=$(abspath $(BUILD))/korvane-bayeux node --test --test-concurrency=1 tests/cluster/

# Headless Chromium on the demo page; screenshots go to $(BUILD)/browser/.
test-browser:
	KORVANE_SERVER=$(abspath $(BUILD))/korvane-bayeux KORVANE_ARTIFACTS=$(abspath $(BUILD))/browser \
	  node --test --test-concurrency=1 tests/browser/

# Ten seconds of chat over WebSocket with korvane-load against the server: fails on any
# lost, duplicated or reordered message or error, never on a time.
test-load-smoke:
	@$(CONFIGURE) -B $(BUILD) >/dev/null
	cmake --build $(BUILD) -j$(JOBS) --target korvane-bayeux korvane-load
	KORVANE_SERVER=$(abspath $(BUILD))/korvane-bayeux KORVANE_LOAD=$(abspath $(BUILD))/korvane-load \
	  BENCH_OUT=$(abspath $(BUILD))/load-smoke scripts/bench-load smoke

# A minute of the soak (2,000 churning clients) against the server: fails on any loss,
# error or server that does not exit 0; the RSS samples are printed, never judged.
test-soak:
	KORVANE_SERVER=$(abspath $(BUILD))/korvane-bayeux KORVANE_LOAD=$(abspath $(BUILD))/korvane-load \
	  BENCH_OUT=$(abspath $(BUILD))/soak-short SOAK_SECONDS=60 SOAK_RSS_EVERY=10 scripts/bench-load soak

# The server's RSS while peers that read nothing are fed: bounded, then given back.
test-memory:
	KORVANE_SERVER=$(abspath $(BUILD))/korvane-bayeux node --test --test-concurrency=1 tests/memory/

# Chat load against the sanitizer builds of the server (20 s under ASan+UBSan, 10 s under
# TSan): a report makes the server exit non-zero, which fails the run.
test-load-sanitized:
	$(ASAN_ENV) KORVANE_SERVER=$(abspath $(ASAN_BUILD))/korvane-bayeux KORVANE_LOAD=$(abspath $(BUILD))/korvane-load \
	  BENCH_OUT=$(abspath $(BUILD))/load-asan SMOKE_SECONDS=20 SMOKE_RATE=200 scripts/bench-load smoke
	$(TSAN_ENV) KORVANE_SERVER=$(abspath $(TSAN_BUILD))/korvane-bayeux KORVANE_LOAD=$(abspath $(BUILD))/korvane-load \
	  BENCH_OUT=$(abspath $(BUILD))/load-tsan SMOKE_SECONDS=10 SMOKE_CLIENTS=100 SMOKE_RATE=100 scripts/bench-load smoke

# `make install` into a scratch prefix, and the embedding example built from it alone.
test-install:
	rm -rf $(BUILD)/install-test
	cmake --install $(BUILD) --prefix $(abspath $(BUILD))/install-test/prefix >/dev/null
	cmake -S examples -B $(BUILD)/install-test/build -DCMAKE_PREFIX_PATH=$(abspath $(BUILD))/install-test/prefix \
	  -DCMAKE_BUILD_TYPE=RelWithDebInfo -Wno-dev >/dev/null
	cmake --build $(BUILD)/install-test/build -j$(JOBS)
	$(BUILD)/install-test/build/embedded_chat --check

# The Debian packages from cpack: what each holds and needs, the server unpacked into a
# scratch root serving from there, and its systemd unit verified by systemd-analyze.
test-package:
	rm -rf $(BUILD)/packages
	cd $(BUILD) && cpack -G DEB -B $(abspath $(BUILD))/packages >/dev/null
	KORVANE_PACKAGES=$(abspath $(BUILD))/packages node --test --test-concurrency=1 tests/package/

# FUZZ_SECONDS shared by all the fuzz targets, as part of `make test`.
fuzz: deps
	FUZZ_SECONDS=$(FUZZ_SECONDS) scripts/fuzz

# Every fuzz target for FUZZ_SECONDS of its own, e.g. `make fuzz-long FUZZ_SECONDS=3600`.
fuzz-long: deps
	FUZZ_SECONDS=$(FUZZ_SECONDS) FUZZ_EACH=1 scripts/fuzz

bench: build
	@for b in $(BUILD)/bench/bench_*; do echo "== $$b"; $$b --benchmark_min_time=0.2 || exit 1; done

# Three servers on one to three Redis shards: fan-in per server, capacity, added latency.
# Figures only; scale the clients down on a small machine (see the script's head).
bench-cluster: build
	KORVANE_SERVER=$(abspath $(BUILD))/korvane-bayeux nice -n 10 node bench/cluster-scale.mjs

# The load scenarios against a Release server; figures and charts in build/bench/.
bench-load: deps
	scripts/bench-load

# SOAK_SECONDS of churn against a Release server, RSS each minute, e.g. `make soak SOAK_SECONDS=3600`.
soak: deps
	SOAK_SECONDS=$(SOAK_SECONDS) scripts/bench-load soak

install: build
	cmake --install $(BUILD) $(if $(PREFIX),--prefix $(PREFIX))

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(TSAN_BUILD) build-fuzz
