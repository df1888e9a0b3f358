# The two commands a newcomer types: `make demo` and `make test`.
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
FUZZ_SECONDS ?= 15
DEMO_NOW := 2026-11-21T09:30:00Z
GP := build/release/gaugepoint

.PHONY: demo test build asan fuzz bench bootstrap clean

bootstrap:
	@scripts/bootstrap

build: bootstrap
	@cmake --preset release >/dev/null
	@cmake --build --preset release -j $(JOBS)

demo: bootstrap
	@cmake --preset release >/dev/null
	@cmake --build --preset release -j $(JOBS) --target gaugepoint
	@echo; echo "== gaugepoint widget (English)"
	@$(GP) widget --snapshot examples/widget-snapshot.json --now $(DEMO_NOW) --lang en
	@echo; echo "== gaugepoint widget (简体中文)"
	@$(GP) widget --snapshot examples/widget-snapshot.json --now $(DEMO_NOW) --lang zh-Hans
	@echo; echo "== gaugepoint widget --format waybar"
	@$(GP) widget --snapshot examples/widget-snapshot.json --now $(DEMO_NOW) --format waybar

test: build
	@ctest --preset release -j $(JOBS)
	@$(MAKE) --no-print-directory asan
	@$(MAKE) --no-print-directory fuzz

asan: bootstrap
	@cmake --preset asan >/dev/null
	@cmake --build --preset asan -j $(JOBS)
	@ctest --preset asan -j $(JOBS)

fuzz: bootstrap
	@cmake --preset asan >/dev/null
	@cmake --build --preset asan -j $(JOBS)
	@scripts/run-fuzzers build/asan $(FUZZ_SECONDS)

bench: build
	@scripts/run-benchmarks build/release

clean:
	rm -rf build
