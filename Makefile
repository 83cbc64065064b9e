# The front door. CMake presets do the work; `make -n TARGET` shows what would run.

.PHONY: all build demo test check bench install uninstall deps format clean

all: build

deps:
	@sh cmake/install-deps.sh

build/%/build.ninja: | deps
	cmake --preset $*

build: build/release/build.ninja
	cmake --build --preset release

demo: build/release/build.ninja
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

# PREFIX and DESTDIR as usual. The loader finds a new library of /usr/local only after ldconfig.
install: build
	cmake --install build/release $(if $(PREFIX),--prefix "$(abspath $(PREFIX))")
	cp build/release/install_manifest.txt build/release/installed.txt
	@if [ -z "$(DESTDIR)$(PREFIX)" ] && [ "$$(id -u)" -eq 0 ]; then PATH="$$PATH:/sbin" ldconfig; fi

# What the latest install put down; its DESTDIR has to be given again.
uninstall:
	sed 's|^|$(DESTDIR)|' build/release/installed.txt | xargs -d '\n' rm -f
	sed 's|^|$(DESTDIR)|' build/release/installed.txt | xargs -d '\n' dirname | grep /korvo | sort -ru | \
	    xargs -d '\n' rmdir --ignore-fail-on-non-empty

# The public C header and the C example are laid out by hand, for their readers.
by_hand = api/krv.h examples/host.c
format:
	git ls-files '*.h' '*.c' '*.cpp' $(by_hand:%=':!%') | xargs clang-format -i

clean:
	rm -rf build
