# Short names for what the presets and scripts/ do. Every target can be run again and again.
.PHONY: build check demo scale-demo deb asan bench fuzz chaos torture soak check-clean check-arm64 format tidy clean
.NOTPARALLEL:

build:
	@scripts/install-packages build
	@scripts/build dev

check:
	@scripts/install-packages build deb fuzz check servers
	@scripts/build dev
	@scripts/format
	@scripts/tidy build/dev
	@ctest --preset dev
	@scripts/build fuzz
	@ctest --preset fuzz

demo: build
	@scripts/install-packages servers demo
	@demo/demo.py build/dev

# Two daemons behind HAProxy, one of them killed under way, and one VictoriaMetrics.
scale-demo: build
	@scripts/install-packages servers scale
	@demo/scale/scale_demo.py build/dev

deb:
	@scripts/install-packages build deb
	@scripts/build-packages build/deb
	@ls build/deb/*.deb

# The suite under the address and undefined-behaviour sanitizers.
asan:
	@scripts/install-packages build check servers
	@scripts/build asan
	@ctest --preset asan

bench:
	@scripts/install-packages build servers
	@scripts/build bench
	@bench/table.py

# Every fuzz target for so many seconds; `make check` replays their committed inputs.
fuzz: SECONDS ?= 60
fuzz:
	@scripts/install-packages build fuzz
	@scripts/build fuzz
	@fuzz/run.py $(SECONDS)

# The tests that take long: faults that need much memory, much traffic or a real InfluxDB.
chaos: build
	@scripts/install-packages build check servers
	@ctest --preset chaos

# Each allocation and system call of a session fails once; `make check` tries a sample of them.
torture:
	@scripts/install-packages build
	@scripts/build dev
	@PELORUS_TORTURE_STEP=1 build/dev/bin/torture_test

# Good and bad peers together for so many minutes.
soak: MINUTES ?= 20
soak: build
	@scripts/install-packages servers
	@tests/end_to_end/soak.py build/dev $(MINUTES)

# Everything on a fresh, minimal system of a Debian release, as an ordinary user.
check-clean: RELEASE ?= bookworm
check-clean:
	@scripts/install-packages clean
	@scripts/check-clean $(RELEASE)

# A cross build for arm64, and the unit tests under qemu.
check-arm64:
	@scripts/install-packages build arm64
	@scripts/check-arm64

format:
	@scripts/install-packages check
	@scripts/format --fix

tidy: build
	@scripts/install-packages check
	@scripts/tidy build/dev

clean:
	rm -rf build
