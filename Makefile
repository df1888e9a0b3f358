# The two commands a newcomer types: `make demo` and `make test`.
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
FUZZ_SECONDS ?= 15
DEMO_NOW := 2026-11-21T09:30:00Z
GP := build/release/gaugepoint
# The bundled sample of coding-tool logs, read into a scratch store with its own settings, so the
# demo leaves the user's stores alone; the clock is set just after the sample's last events.
DEMO_HOME := build/demo
DEMO_GP := XDG_CONFIG_HOME=$(DEMO_HOME)/config XDG_DATA_HOME=$(DEMO_HOME)/data $(GP) --app-group-dir $(DEMO_HOME)/group
LOGS_NOW := 2026-11-06T21:00:00Z
LOGS := --claude-dir examples/logs/claude --codex-dir examples/logs/codex --gemini-dir examples/logs/gemini \
	--opencode-dir examples/logs/opencode --copilot-dir examples/logs/copilot --qwen-dir examples/logs/qwen \
	--amp-dir examples/logs/amp --goose-dir examples/logs/goose --kimi-dir examples/logs/kimi \
	--kimi-dir examples/logs/kimi-code --pi-dir examples/logs/pi

.PHONY: demo test build asan tsan fuzz bench bootstrap clean install

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
	@rm -rf $(DEMO_HOME)
	@echo; echo "== gaugepoint scan (the sample logs in examples/logs)"
	@$(DEMO_GP) scan $(LOGS) --now $(LOGS_NOW)
	@echo; echo "== gaugepoint report daily --since 2026-11-01"
	@$(DEMO_GP) report daily --no-scan --timezone UTC --since 2026-11-01
	@echo; echo "== gaugepoint widget (this machine's snapshot, made from the imported logs)"
	@$(DEMO_GP) widget --now $(LOGS_NOW)
	@$(DEMO_GP) widget --now $(LOGS_NOW) --format line
	@echo; echo "== gaugepoint statusline (Claude Code's status line, fed its sample input with resets from now)"
	@now=$$(date +%s); sed -e "s/1795400000/$$((now + 7200))/" -e "s/1795900000/$$((now + 300000))/" \
		examples/statusline-input.json | $(DEMO_GP) statusline --format plain
	@$(DEMO_GP) widget --provider claude

test: build
	@ctest --preset release -j $(JOBS)
	@$(MAKE) --no-print-directory asan
	@$(MAKE) --no-print-directory tsan
	@$(MAKE) --no-print-directory fuzz

asan: bootstrap
	@cmake --preset asan >/dev/null
	@cmake --build --preset asan -j $(JOBS)
	@ctest --preset asan -j $(JOBS)

# The suites whose code runs threads (the scan's reader and writer, the connection pools, the
# shared tokenizer), under ThreadSanitizer.
TSAN_SUITES := importers_tests notify_tests stores_tests pricing_tests quota_tests
tsan: bootstrap
	@cmake --preset tsan >/dev/null
	@cmake --build --preset tsan -j $(JOBS)
	@for suite in $(TSAN_SUITES); do \
		exe=$$(find build/tsan/tests -name $$suite -type f | head -n 1); \
		TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 TZ=UTC LC_ALL=C.UTF-8 \
		GAUGEPOINT_APP_GROUP_DIR=$(CURDIR)/build/tsan/test-home/group XDG_CONFIG_HOME=$(CURDIR)/build/tsan/test-home/config \
		XDG_DATA_HOME=$(CURDIR)/build/tsan/test-home/data $$exe --gtest_brief=1 || exit 1; \
		echo "tsan: $$suite passed"; \
	done

fuzz: bootstrap
	@cmake --preset asan >/dev/null
	@cmake --build --preset asan -j $(JOBS)
	@scripts/run-fuzzers build/asan $(FUZZ_SECONDS)

# The command into ~/.local/bin (PREFIX=/usr/local for all users).
PREFIX ?= $(HOME)/.local
install: bootstrap
	@cmake --preset release >/dev/null
	@cmake --build --preset release -j $(JOBS) --target gaugepoint
	@install -D -m 755 $(GP) $(PREFIX)/bin/gaugepoint
	@install -D -m 644 build/release/gaugepoint-web.so $(PREFIX)/lib/gaugepoint/gaugepoint-web.so  # loaded by `dashboard`
	@echo "installed $(PREFIX)/bin/gaugepoint"

bench: build
	@scripts/run-benchmarks build/release

clean:
	rm -rf build
