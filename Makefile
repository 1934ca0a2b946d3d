# Front door of the build. See README.md.
JOBS    ?= $(shell nproc)
PREFIX  ?= /usr/local
CMAKE   ?= cmake
BUILD   := build
# Configured for /usr so that the library directory is the multiarch one;
# `make install PREFIX=...` still installs anywhere (the tool finds its
# library relative to itself).
CONFIGURE := $(CMAKE) -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr

DEPS       := g++ cmake make pkg-config libssl-dev libsqlite3-dev libgtest-dev libgmock-dev libbenchmark-dev
# Real peers the tests talk to on loopback: proxies, servers and clients.
TEST_DEPS  := openssl curl python3 sqlite3 tinyproxy dante-server microsocks nginx-light lftp vsftpd \
              python3-pyftpdlib rsyslog bsdutils
BENCH_DEPS := libcjson-dev libglib2.0-dev zlib1g-dev libcurl4-openssl-dev vsftpd

.PHONY: all deps test-deps test-i386 build-fuzz-targets fuzz run test deb deb-check test-plain test-asan test-tsan test-fuzz bench install clean

all: deps
	$(CONFIGURE)
	$(CMAKE) --build $(BUILD) -j $(JOBS)

deps:
	@./scripts/install-deps.sh $(DEPS)

test-deps:
	@./scripts/install-deps.sh $(TEST_DEPS)

run: all
	./$(BUILD)/tools/vekutil demo

# The whole suite, then again under AddressSanitizer+UBSan, the threaded tests
# under ThreadSanitizer, the fuzz targets briefly (clang is installed for
# them), and the plain suite once more as 32-bit x86.
test: deps test-deps test-plain test-i386 test-fuzz test-tsan test-asan

test-plain:
	$(CONFIGURE)
	$(CMAKE) --build $(BUILD) -j $(JOBS)
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

# Library, tool and plain suite again for 32-bit x86 (-m32); the sanitizer
# builds stay 64-bit only.
I386_DEPS := g++-multilib dpkg-dev
test-i386:
	@./scripts/install-deps.sh $(I386_DEPS)
	./scripts/i386-sysroot.sh build-i386/sysroot
	$(CMAKE) -S . -B build-i386 -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-i386.cmake -DVEK_I386_ROOT=$(CURDIR)/build-i386/sysroot
	$(CMAKE) --build build-i386 -j $(JOBS)
	cd build-i386 && LD_LIBRARY_PATH=$(CURDIR)/build-i386/sysroot/root/usr/lib/i386-linux-gnu \
	  ctest --output-on-failure -j $(JOBS)

test-asan:
	$(CMAKE) -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DVEK_SANITIZE=asan -DVEK_BUILD_TOOLS=OFF
	$(CMAKE) --build build-asan -j $(JOBS)
	cd build-asan && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 ctest --output-on-failure -j $(JOBS)

test-tsan:
	$(CMAKE) -S . -B build-tsan -DCMAKE_BUILD_TYPE=Debug -DVEK_SANITIZE=tsan -DVEK_TSAN_ONLY=ON -DVEK_BUILD_TOOLS=OFF
	$(CMAKE) --build build-tsan -j $(JOBS)
	cd build-tsan && TSAN_OPTIONS=halt_on_error=1 ctest --output-on-failure -j $(JOBS) -L tsan

FUZZ_DEPS := clang libclang-rt-14-dev
FUZZ_MINUTES ?= 10
build-fuzz-targets:
	@./scripts/install-deps.sh $(FUZZ_DEPS)
	CC=clang CXX=clang++ $(CMAKE) -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVEK_BUILD_FUZZ=ON \
	  -DVEK_BUILD_TESTS=OFF -DVEK_BUILD_TOOLS=OFF
	$(CMAKE) --build build-fuzz -j $(JOBS)

# Every libFuzzer target briefly, from its kept corpus.
test-fuzz: build-fuzz-targets
	cd build-fuzz && ctest --output-on-failure -j $(JOBS) -L fuzz

# Every target for FUZZ_MINUTES of CPU time, adding what it finds to the
# corpus kept in tests/fuzz/corpus/ (then minimised by a merge).
fuzz: build-fuzz-targets
	@for f in build-fuzz/tests/fuzz/*_fuzz; do \
	  name=$$(basename $$f); kept=tests/fuzz/corpus/$$name; mkdir -p $$kept build-fuzz/min/$$name; \
	  echo "== $$name ($(FUZZ_MINUTES) min)"; \
	  $$f -max_total_time=$$(( $(FUZZ_MINUTES) * 60 )) -rss_limit_mb=2048 -print_final_stats=1 $$kept || exit 1; \
	  $$f -merge=1 build-fuzz/min/$$name $$kept >/dev/null 2>&1 && rm -rf $$kept && mv build-fuzz/min/$$name $$kept; \
	done

bench: deps
	@./scripts/install-deps.sh $(BENCH_DEPS)
	$(CMAKE) -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DVEK_BUILD_BENCH=ON -DVEK_BUILD_TESTS=OFF
	$(CMAKE) --build build-bench -j $(JOBS)
	@for b in build-bench/bench/bench_*; do [ -x "$$b" ] && echo "== $$b" && "$$b" || exit 1; done

install: all
	$(CMAKE) --install $(BUILD) --prefix $(PREFIX)

# Debian packages libvekutil0, libvekutil-dev and vekutil in build/debs.
deb: all
	cd $(BUILD) && cpack -B debs

# Installs the packages for real, runs the consumer and tool checks against
# the system copy, and removes them again.
deb-check: deb
	./tests/install/check_installed_packages.sh $(BUILD)/debs tests/install

clean:
	rm -rf $(BUILD) build-asan build-tsan build-fuzz build-bench build-i386
