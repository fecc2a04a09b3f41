# Thin wrapper over CMake. `make demo` and `make test` are the README's two commands for a fresh
# machine; `make library` and `make install` are a user's build from source.
.PHONY: deps library-deps package-deps release-library build demo test bench format clean docs package abi-baseline library install

# Where `make install` puts the library, the headers, the tool, the CMake package and zoth-common.pc.
PREFIX ?= /usr/local

# Everything the tests, benchmarks, Windows build and packages need.
deps:
	bash scripts/install-deps.sh

# Only what the library and the zoth tool need.
library-deps:
	bash scripts/install-deps.sh --library

# The library's and the Debian packaging tools.
package-deps:
	bash scripts/install-deps.sh --package

build: deps
	cmake --preset release >/dev/null
	cmake --build --preset release

demo: build
	./build/release/tools/zoth/zoth demo

test: deps
	bash scripts/run-tests.sh

bench: build
	bash scripts/run-bench.sh

format:
	git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf build

# The library and the tool alone, with the minimal dependencies, into build/library: no tests, no
# benchmarks (RelWithDebInfo, as the packages are built).
library: library-deps
	cmake -S . -B build/library -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DZOTH_BUILD_TESTS=OFF -DZOTH_BUILD_BENCH=OFF >/dev/null
	cmake --build build/library --target ZOTHCommonDll zoth

# Installs build/library into $(PREFIX), then refreshes the loader's cache when run as root, so
# programs find libZOTHCommonDll.so.1 in a prefix such as /usr/local.
install: library
	cmake --install build/library --prefix $(PREFIX)
	if [ "$$(id -u)" = 0 ]; then ldconfig; fi

# The HTML API reference, into build/docs/html.
docs: deps
	bash scripts/build-docs.sh build/docs

# The library and the tool in the release preset (RelWithDebInfo: the ABI guard reads its debug
# information).
release-library: deps
	cmake --preset release >/dev/null
	cmake --build --preset release --target ZOTHCommonDll zoth

# Debian packages (runtime library, development files, zoth tool) of build/library into
# build/library/packages, checked by lintian.
package: package-deps library
	bash scripts/check-debs.sh build/library

# Records the ABI baseline abi/<soname>.abi from the release build. Once the major version is
# released (tag vX.0.0), refuses an incompatible replacement of its baseline; FORCE=1 overrides.
abi-baseline: release-library
	bash scripts/check-abi.sh --renew $(if $(FORCE),--force) build/release/libZOTHCommonDll.so
