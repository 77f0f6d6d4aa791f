# Front door: `make demo` runs the library on built-in examples, `make test`
# runs the whole test suite in a normal and in a sanitizer (ASan + UBSan)
# build. Both install what they need on a fresh Debian machine first.

BUILD ?= build
ASAN_BUILD ?= build-asan
JOBS ?= 2
CMAKE_FLAGS ?=

.PHONY: all deps configure build demo test test-release test-asan bench clean

all: build

deps:
	@./scripts/install-deps.sh

$(BUILD)/build.ninja: | deps
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Release -DKORA_WERROR=ON $(CMAKE_FLAGS)

$(ASAN_BUILD)/build.ninja: | deps
	cmake -S . -B $(ASAN_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG="-O1 -g" \
	  -DKORA_SANITIZE=ON -DKORA_BUILD_BENCH=OFF $(CMAKE_FLAGS)

build: deps $(BUILD)/build.ninja
	cmake --build $(BUILD) -j $(JOBS)

demo: build
	./$(BUILD)/tools/demo/kora-demo
	./scripts/demo-walkthrough.sh $(BUILD)

test: test-release test-asan

test-release: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

test-asan: deps $(ASAN_BUILD)/build.ninja
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1 \
	  ctest --output-on-failure -j $(JOBS)

bench: build
	@for b in $(BUILD)/bench/bench_*; do echo "== $$b"; $$b; done

clean:
	rm -rf $(BUILD) $(ASAN_BUILD)
