# Thin wrapper over the CMake presets. `make demo` and `make test` are the README's two commands.
.PHONY: deps build demo test bench format clean

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
