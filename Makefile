# The two commands: `make run` and `make test`. Everything else is a helper.
BUILD      ?= build
ASAN_BUILD ?= build-asan
JOBS       ?= $(shell nproc)
CMAKE_ARGS ?=
# Let ccache share objects between checkouts in different folders.
export CCACHE_BASEDIR := $(CURDIR)
export CCACHE_NOHASHDIR := 1
# What ccache needs to cache the files compiled with a precompiled header.
export CCACHE_SLOPPINESS := pch_defines,time_macros

.PHONY: run test test-asan setup setup-run build build-asan bench clean format qmllint package

# What `make run` needs: the server and the app, nothing of the tests,
# optimised as RelWithDebInfo but without its debug information (which costs
# a fifth of the compile time). A folder configured already keeps its type.
RUN_TARGETS := rongdian-server rongdian
RUN_CONFIG  := -DCMAKE_BUILD_TYPE=Release '-DCMAKE_CXX_FLAGS_RELEASE=-O2 -DNDEBUG'

setup:
	@scripts/setup.sh

setup-run:
	@scripts/setup.sh --run

# Ninja: a build with nothing to do does nothing (the Makefile generator reruns
# Qt's metatype steps, and so the QML compiler, every time). A folder
# configured with another generator is configured afresh. (Once configured,
# Ninja reruns CMake itself when a CMakeLists.txt changes.)
#   $(call configure,DIR,CMAKE ARGS)
define configure
	@if [ ! -f $(1)/build.ninja ]; then \
	  if [ -f $(1)/CMakeCache.txt ]; then \
	    echo "build: $(1) was configured with another generator; configuring it again for Ninja"; \
	    rm -rf $(1)/CMakeCache.txt $(1)/CMakeFiles; fi; \
	  echo cmake -S . -B $(1) -G Ninja $(2) $(CMAKE_ARGS); \
	  cmake -S . -B $(1) -G Ninja $(2) $(CMAKE_ARGS); fi
endef

# The tests on: a folder that `make run` configured without them gets them.
build: setup
	$(call configure,$(BUILD),-DCMAKE_BUILD_TYPE=RelWithDebInfo)
	@grep -q '^BUILD_TESTING:BOOL=ON$$' $(BUILD)/CMakeCache.txt || cmake -DBUILD_TESTING=ON $(BUILD)
	@cmake --build $(BUILD) -j $(JOBS)

# Only what it runs: the tests and benchmarks are built by `make test`/`make bench`.
run: setup-run
	$(call configure,$(BUILD),$(RUN_CONFIG) -DBUILD_TESTING=OFF)
	@cmake --build $(BUILD) -j $(JOBS) --target $(RUN_TARGETS)
	@scripts/run.sh $(BUILD)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS) --timeout 900

# The Debian packages rongdian and rongdian-server, in $(BUILD)/packages
# (cmake/Package.cmake): only what they hold is built.
package: setup
	$(call configure,$(BUILD),-DCMAKE_BUILD_TYPE=RelWithDebInfo)
	@cmake --build $(BUILD) -j $(JOBS) --target rongdian rongdian-server rongdian-score man_pages
	cpack --config $(BUILD)/CPackConfig.cmake -B $(BUILD)/packages
	@ls $(BUILD)/packages/*.deb

# qmllint over the app's QML module (also one of the tests).
qmllint: build
	@cmake --build $(BUILD) --target rongdian_ui_qmllint

# The unit tests once more, built with AddressSanitizer and UBSan.
build-asan: setup
	$(call configure,$(ASAN_BUILD),-DCMAKE_BUILD_TYPE=Debug -DRD_SANITIZE=ON -DRD_BUILD_APP=OFF)
	@cmake --build $(ASAN_BUILD) -j $(JOBS) --target unit_tests

test-asan: build-asan
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
	  ctest --output-on-failure -j $(JOBS) --timeout 900 -L 'core|server|face'

bench: build
	@scripts/bench.sh $(BUILD)

format:
	git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf $(BUILD) $(ASAN_BUILD)
