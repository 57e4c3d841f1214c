BUILD ?= build
JOBS ?= $(shell nproc)

.PHONY: deps configure build run test test-tsan bench install package package-test translations \
	clean format

deps:
	@scripts/install-deps

configure: deps
	@cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

# Starts the program; without an audio server or a display it brings its own (scripts/run-app).
run: build
	@scripts/run-app $(BUILD)

# Installs the program, its desktop entry and its icons (PREFIX, default /usr/local).
PREFIX ?= /usr/local
install: build
	@cmake --install $(BUILD) --prefix $(PREFIX)

# A failed test runs once more before it counts: the live recordings share two cores with real
# players and a real server, which can underrun; a real fault fails both runs (both are printed).
test: build
	@cd $(BUILD) && ctest --output-on-failure -j $(JOBS) --timeout 300 --repeat until-pass:2

# The Debian package of the build the tests run (RelWithDebInfo), stripped:
# $(BUILD)/brightwave-record_<version>_<arch>.deb
package: build
	@scripts/install-deps packaging
	@cd $(BUILD) && rm -f brightwave-record_*.deb && cpack -G DEB

# Checks the package: installs it into this machine (root or sudo), starts the installed program,
# purges it.
package-test: package
	@tests/package-check $(BUILD)/brightwave-record_*.deb

# Every test again under ThreadSanitizer, but the live recordings and the accessibility bus check:
# those run real servers, tools and a whole session that aren't instrumented.
test-tsan: deps
	@cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBW_SANITIZE=thread >/dev/null
	@cmake --build build-tsan -j $(JOBS)
	@cd build-tsan && TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$(CURDIR)/tests/thread-sanitizer.supp" \
		ctest --output-on-failure -j $(JOBS) --timeout 600 -E "LiveRecordingTest|WindowRecordingTest|AccessibilityBusTest"

bench: build
	@bench/run-all $(BUILD)

# Extracts every text a user reads into the translators' catalogue (translations/*.ts).
translations: deps
	@scripts/translations

format:
	@git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	@rm -rf $(BUILD)
