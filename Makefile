# The two commands a newcomer needs: `make demo` and `make test`.
# Both install what is missing (scripts/setup), configure and build.

PRESET ?= release
BUILD  := build/$(PRESET)
JOBS   ?= $(shell nproc)
PREFIX ?= /usr/local

.PHONY: all setup configure build test demo bench install package format clean

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

# make install PREFIX=/opt/skyrinse: the programs, the plug-in, libspds and
# its headers, package descriptions and manual pages under PREFIX.
install: build
	@cmake --install $(BUILD) --prefix $(PREFIX)

# make package: build/release/skyrinse_<version>_<arch>.deb, for
# apt install ./skyrinse_*.deb
package: build
	@cmake --build --preset $(PRESET) --target package

bench: build
	@for b in $(BUILD)/bench/*/bench_*; do [ -x "$$b" ] && "$$b"; done

format:
	@git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf build
