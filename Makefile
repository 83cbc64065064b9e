# The front door. CMake presets do the work; `make -n TARGET` shows what would run.

.PHONY: all build demo test check bench install deps format clean

all: build

deps:
	@sh cmake/install-deps.sh

build/%/build.ninja: | deps
	cmake --preset $*

build: build/release/build.ninja
	cmake --build --preset release

demo: build
	cmake --build --preset release --target demo

test: build
	ctest --preset release

check: build/asan/build.ninja build/tsan/build.ninja
	cmake --build --preset asan
	ctest --preset asan
	cmake --build --preset tsan
	ctest --preset tsan

bench: build
	build/release/korvo_bench

install: build
	cmake --install build/release

format:
	git ls-files '*.h' '*.c' '*.cpp' | xargs clang-format -i

clean:
	rm -rf build
