# The two commands a newcomer needs: `make demo` and `make test`.
# Both install what is missing (scripts/setup), configure and build.

PRESET ?= release
BUILD  := build/$(PRESET)
JOBS   ?= $(shell nproc)

.PHONY: all setup configure build test demo bench format clean

all: build

setup:
	@scripts/setup

configure: setup
	@cmake --preset $(PRESET) >/dev/null

build: configure
	@cmake --build --preset $(PRESET) -j $(JOBS)

test: build
	@ctest --preset $(PRESET) -j $(JOBS)

demo: build
	@scripts/demo $(BUILD)

bench: build
	@for b in $(BUILD)/bench/*/bench_*; do [ -x "$$b" ] && "$$b"; done

format:
	@git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf build
