# The two commands: `make run` and `make test`. Everything else is a helper.
BUILD      ?= build
ASAN_BUILD ?= build-asan
JOBS       ?= $(shell nproc)
CMAKE_ARGS ?=
# Let ccache share objects between checkouts in different folders.
export CCACHE_BASEDIR := $(CURDIR)
export CCACHE_NOHASHDIR := 1

.PHONY: run test test-asan setup build build-asan bench clean format qmllint package

setup:
	@scripts/setup.sh

$(BUILD)/CMakeCache.txt:
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_ARGS)

# (env -u MAKELEVEL: the build's own makefiles then print no "Entering directory" lines.)
build: setup $(BUILD)/CMakeCache.txt
	@env -u MAKELEVEL cmake --build $(BUILD) -j $(JOBS)

run: build
	@scripts/run.sh $(BUILD)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS) --timeout 900

# The Debian packages rongdian and rongdian-server, in $(BUILD)/packages
# (cmake/Package.cmake): only what they hold is built.
package: setup $(BUILD)/CMakeCache.txt
	@env -u MAKELEVEL cmake --build $(BUILD) -j $(JOBS) --target rongdian rongdian-server rongdian-score man_pages
	cpack --config $(BUILD)/CPackConfig.cmake -B $(BUILD)/packages
	@ls $(BUILD)/packages/*.deb

# qmllint over the app's QML module (also one of the tests).
qmllint: build
	@env -u MAKELEVEL cmake --build $(BUILD) --target rongdian_ui_qmllint

# The unit tests once more, built with AddressSanitizer and UBSan.
$(ASAN_BUILD)/CMakeCache.txt:
	cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DRD_SANITIZE=ON -DRD_BUILD_APP=OFF $(CMAKE_ARGS)

build-asan: setup $(ASAN_BUILD)/CMakeCache.txt
	@env -u MAKELEVEL cmake --build $(ASAN_BUILD) -j $(JOBS) --target unit_tests

test-asan: build-asan
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
	  ctest --output-on-failure -j $(JOBS) --timeout 900 -L 'core|server|face'

bench: build
	@scripts/bench.sh $(BUILD)

format:
	git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf $(BUILD) $(ASAN_BUILD)
