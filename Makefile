# Thin wrapper over the CMake presets. `make demo` and `make test` are the README's two commands.
.PHONY: deps build demo test bench format clean docs package abi-baseline library

deps:
	bash scripts/install-deps.sh

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

# The library and the tool alone, in the release preset (RelWithDebInfo: the ABI guard reads its
# debug information).
library: deps
	cmake --preset release >/dev/null
	cmake --build --preset release --target ZOTHCommonDll zoth

# The HTML API reference, into build/docs/html.
docs: deps
	bash scripts/build-docs.sh build/docs

# Debian packages (runtime library, development files, zoth tool) into build/release/packages,
# checked by lintian.
package: library
	bash scripts/check-debs.sh build/release

# Records the ABI baseline abi/<soname>.abi from the release build. Once the major version is
# released (tag vX.0.0), refuses an incompatible replacement of its baseline; FORCE=1 overrides.
abi-baseline: library
	bash scripts/check-abi.sh --renew $(if $(FORCE),--force) build/release/libZOTHCommonDll.so
