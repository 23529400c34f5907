# The two everyday commands:
#   make run    builds everything and starts Corvane
#   make test   builds everything and runs every test
BUILD ?= build
JOBS ?= $(shell nproc)
PREFIX ?= /usr/local

.PHONY: all deps configure build run test install screenshot bench fuzz-long kill-long clean

all: build

deps:
	scripts/deps.sh $(BUILD)

configure: deps
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null

build: configure
	cmake --build $(BUILD) -j $(JOBS)

run: build
	$(BUILD)/bin/corvane

test: build
	ctest --test-dir $(BUILD) -j $(JOBS) --output-on-failure --timeout 600

# A picture of the window as it starts now, drawn without a display.
screenshot: build
	QT_QPA_PLATFORM=offscreen $(BUILD)/bin/corvane --screenshot $(BUILD)/corvane.png
	@echo "saved $(BUILD)/corvane.png"

clean:
	rm -rf $(BUILD)

# Into PREFIX, below DESTDIR when it is set (a package's staging folder). It installs what
# make built and builds nothing: under sudo the dependency cache in the user's home is out of
# reach, and a build as root would leave files in the build folder that the user cannot change.
install:
	@if [ ! -x "$(BUILD)/bin/corvane" ]; then \
	  echo "Nothing to install: build first with make, then run sudo make install." >&2; exit 1; \
	fi
	DESTDIR="$(DESTDIR)" cmake --install $(BUILD) --prefix "$(PREFIX)"

# Every benchmark, one after the other; see docs/performance.md.
bench: build
	@for b in $(BUILD)/bench/*; do \
	  if [ -f "$$b" ] && [ -x "$$b" ]; then echo "== $$b"; "$$b" || exit 1; fi; \
	done

# Every fuzzer for far more inputs than the tests give it, one after the other (about twenty
# minutes on two cores); see docs/performance.md.
fuzz-long: configure
	cmake --build $(BUILD) --target fuzz-long

# The kill test with 1,000 kills instead of 30 (over an hour on two cores); CORVANE_KILL_SEED
# repeats a run whose seed it printed.
kill-long: build
	ctest --test-dir $(BUILD) -R '^make-test-models$$' --output-on-failure >/dev/null
	CORVANE_KILLS=$${CORVANE_KILLS:-1000} QT_QPA_PLATFORM=offscreen $(BUILD)/tests/tst_kill_anywhere
