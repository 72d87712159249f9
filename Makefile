# Set-up and everyday commands. `make test` builds everything and runs every
# test; it installs missing packages first (as root with apt-get).
# SANITIZE=1 (set by CI) builds with AddressSanitizer and UBSan.
# `make fuzz` builds the libFuzzer targets of fuzz/ with clang into
# build-fuzz/ and runs each for FUZZ_SECONDS seconds (fuzz/README.md).

JOBS ?= 2
ifeq ($(SANITIZE),1)
BUILD ?= build-asan
CMAKE_FLAGS += -DRV_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug
else
BUILD ?= build
endif

.PHONY: all deps build test demo package fuzz clean

all: build

deps:
	@scripts/ensure-deps.sh

build: deps
	cmake -S . -B $(BUILD) -G Ninja -DRV_WERROR=ON $(CMAKE_FLAGS)
	cmake --build $(BUILD) -j $(JOBS)

test: build
	ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)

demo: build
	scripts/demo.sh

# The Debian package in build-package/, checked by lintian.
package:
	@scripts/ensure-deps.sh dpkg-dev lintian
	cmake -S . -B build-package -G Ninja -DCMAKE_BUILD_TYPE=Release -DRV_BUILD_TESTS=OFF -DRV_WERROR=ON
	cmake --build build-package -j $(JOBS)
	cd build-package && cpack
	lintian --fail-on error build-package/*.deb

FUZZ_SECONDS ?= 60
fuzz:
	@scripts/ensure-deps.sh clang-14 libclang-rt-14-dev
	CXX=clang++-14 cmake -S . -B build-fuzz -G Ninja -DRV_FUZZ=ON -DRV_BUILD_TESTS=OFF
	cmake --build build-fuzz --target fuzzers -j $(JOBS)
	FUZZ_SECONDS=$(FUZZ_SECONDS) fuzz/run.sh

clean:
	rm -rf build build-asan build-package build-fuzz
