# Front door of the build. See README.md.
JOBS    ?= $(shell nproc)
PREFIX  ?= /usr/local
CMAKE   ?= cmake
BUILD   := build

DEPS       := g++ cmake make pkg-config libssl-dev libsqlite3-dev libgtest-dev libgmock-dev libbenchmark-dev
# Real peers the tests talk to on loopback: proxies, servers and clients.
TEST_DEPS  := openssl curl python3 sqlite3 tinyproxy dante-server microsocks nginx-light lftp vsftpd \
              python3-pyftpdlib rsyslog bsdutils
BENCH_DEPS := libcjson-dev libglib2.0-dev zlib1g-dev libcurl4-openssl-dev vsftpd

.PHONY: all deps test-deps run test test-plain test-asan test-tsan test-fuzz bench install clean

all: deps
	$(CMAKE) -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo
	$(CMAKE) --build $(BUILD) -j $(JOBS)

deps:
	@./scripts/install-deps.sh $(DEPS)

test-deps:
	@./scripts/install-deps.sh $(TEST_DEPS)

run: all
	./$(BUILD)/tools/vekutil demo

# The whole suite, then again under AddressSanitizer+UBSan, the threaded tests
# under ThreadSanitizer, and the fuzz targets when clang is available.
test: deps test-deps test-plain test-fuzz test-tsan test-asan

test-plain:
	$(CMAKE) -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo
	$(CMAKE) --build $(BUILD) -j $(JOBS)
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

test-asan:
	$(CMAKE) -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DVEK_SANITIZE=asan -DVEK_BUILD_TOOLS=OFF
	$(CMAKE) --build build-asan -j $(JOBS)
	cd build-asan && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 ctest --output-on-failure -j $(JOBS)

test-tsan:
	$(CMAKE) -S . -B build-tsan -DCMAKE_BUILD_TYPE=Debug -DVEK_SANITIZE=tsan -DVEK_TSAN_ONLY=ON -DVEK_BUILD_TOOLS=OFF
	$(CMAKE) --build build-tsan -j $(JOBS)
	cd build-tsan && TSAN_OPTIONS=halt_on_error=1 ctest --output-on-failure -j $(JOBS) -L tsan

test-fuzz:
	@if command -v clang++ >/dev/null 2>&1; then \
	  CC=clang CXX=clang++ $(CMAKE) -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVEK_BUILD_FUZZ=ON \
	    -DVEK_BUILD_TESTS=OFF -DVEK_BUILD_TOOLS=OFF && \
	  $(CMAKE) --build build-fuzz -j $(JOBS) && \
	  cd build-fuzz && ctest --output-on-failure -L fuzz; \
	else echo "clang++ not found: fuzz targets skipped"; fi

bench: deps
	@./scripts/install-deps.sh $(BENCH_DEPS)
	$(CMAKE) -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DVEK_BUILD_BENCH=ON -DVEK_BUILD_TESTS=OFF
	$(CMAKE) --build build-bench -j $(JOBS)
	@for b in build-bench/bench/bench_*; do [ -x "$$b" ] && echo "== $$b" && "$$b" || exit 1; done

install: all
	$(CMAKE) --install $(BUILD) --prefix $(PREFIX)

clean:
	rm -rf $(BUILD) build-asan build-tsan build-fuzz build-bench
