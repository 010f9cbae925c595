# The two commands of the README:
#   make examples   converts the bundled example models (installs and builds first if needed)
#   make test       builds and runs every test (normal, sanitizer and fuzz builds)
JOBS ?= 2
BUILD ?= build
OUT ?= out

.PHONY: examples test build deps clean

deps:
	@scripts/install-deps.sh

build: deps
	@cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	@cmake --build $(BUILD) -j$(JOBS)

examples: build
	@scripts/convert-examples.sh $(BUILD) $(OUT)

test:
	@JOBS=$(JOBS) scripts/test.sh

clean:
	rm -rf build build-asan build-fuzz build-mingw $(OUT)
