# Short names for what the presets and scripts/ do. Every target can be run again and again.
.PHONY: build check demo scale-demo deb asan bench fuzz chaos soak packages format tidy clean
.NOTPARALLEL:

build: packages
	@scripts/build dev

check: build
	@scripts/format
	@scripts/tidy build/dev
	@ctest --preset dev
	@scripts/build fuzz
	@ctest --preset fuzz

demo: build
	@demo/demo.py build/dev

# Two daemons behind HAProxy, one of them killed under way, and one VictoriaMetrics.
scale-demo: build
	@demo/scale/scale_demo.py build/dev

deb: packages
	@scripts/build-packages build/deb
	@ls build/deb/*.deb

# The suite under the address and undefined-behaviour sanitizers.
asan: packages
	@scripts/build asan
	@ctest --preset asan

bench: packages
	@scripts/build bench
	@bench/table.py

# Every fuzz target for so many seconds; `make check` replays their committed inputs.
fuzz: SECONDS ?= 60
fuzz: packages
	@scripts/build fuzz
	@fuzz/run.py $(SECONDS)

# Every fault that a peer, InfluxDB, the web server or the machine can have, on the real daemon.
chaos: build
	@chaos/chaos.py build/dev

# Good and bad peers together for so many minutes.
soak: MINUTES ?= 20
soak: build
	@chaos/soak.py build/dev $(MINUTES)

packages:
	@scripts/install-packages

format:
	@scripts/format --fix

tidy: build
	@scripts/tidy build/dev

clean:
	rm -rf build
