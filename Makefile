# Every action of the project, one line each: run `make`. The work is done by the presets of
# CMakePresets.json and by scripts/; this only names it.

# Processes at a time, of compilers and of tests.
JOBS ?= 2
# How long `make fuzz` runs each fuzzer, and `make torture` each of its programs.
SECONDS ?= 60
# How long `make soak` goes on.
MINUTES ?= 10

export CMAKE_BUILD_PARALLEL_LEVEL := $(JOBS)
CTEST := ctest --output-on-failure --no-tests=error -j$(JOBS)

# The thread sanitizer needs its usual addresses free, which some kernels' randomisation takes.
UNSHUFFLED := $(shell setarch -R true 2>/dev/null && echo setarch -R)

.NOTPARALLEL:
.DEFAULT_GOAL := help
.PHONY: help packages build test vm-test demo release asan tsan valgrind coverage install-check docs sessions symbols debian fuzz \
        torture soak bench format format-check tidy include-check clean

help: ## List the actions
	@echo "Actions (JOBS=$(JOBS) processes at a time):"
	@sed -nE 's/^([a-z-]+):[^#]*## (.*)$$/  make \1|\2/p' $(MAKEFILE_LIST) | \
	   awk -F'|' '{ printf "%-22s %s\n", $$1, $$2 }'

packages: ## Install the Debian packages of packages.txt that are missing
	@scripts/install-packages

build: ## Build everything for everyday work, with all checks (build/dev)
	cmake --preset dev
	cmake --build --preset dev

test: packages build ## Install what is missing, build, and run all tests
	cd build/dev && $(CTEST)

vm-test: ## Run the programs on a real kernel's devices, in a virtual machine (needs QEMU)
	cmake --preset dev
	cmake --build --preset dev --target tarnreg nimbod tarn-shadowd vm_register_client shadow_client
	tests/vm/vm_test.py build/dev

demo: packages ## Build what is shipped; show it on a simulated board, daemon and agent included
	cmake --preset release
	cmake --build --preset release --target $(addsuffix /all,$(wildcard tools examples nimbo agent))
	scripts/demo build/release

release: ## Build what is shipped, optimised, and run all tests on it (build/release)
	cmake --preset release
	cmake --build --preset release
	cd build/release && $(CTEST)

asan: ## Run all tests under the address, leak and undefined-behaviour sanitizers
	cmake --preset asan
	cmake --build --preset asan
	cd build/asan && $(CTEST)

tsan: ## Run all tests under the thread sanitizer
	cmake --preset tsan
	$(UNSHUFFLED) cmake --build --preset tsan
	cd build/tsan && $(UNSHUFFLED) $(CTEST)

valgrind: build ## Run the unit tests under valgrind (needs valgrind; takes half an hour)
	scripts/run-valgrind build/dev

coverage: ## Run all tests and report which lines they reach (needs gcovr for the report)
	cmake --preset coverage
	cmake --build --preset coverage
	cd build/coverage && $(CTEST)
	@if command -v gcovr >/dev/null; then \
	   gcovr --root . --filter 'platform/' --filter 'TarnRegFile/' --filter 'board/' \
	      --filter 'nimbo/' --filter 'agent/' --filter 'tools/' --exclude-throw-branches --print-summary \
	      --html-details build/coverage/report.html build/coverage && \
	   echo "Report: build/coverage/report.html"; \
	else echo "No report: gcovr is not installed. The counts are in build/coverage."; fi

install-check: ## Install into a directory, and build with it as a stranger would
	cmake --preset release
	cmake --build --preset release --target $(addsuffix /all,platform TarnRegFile board tools examples nimbo agent docs)
	scripts/check-install build/release

docs: ## Make the API reference (build/docs/html); fail if a comment in a header is wrong
	@mkdir -p build/docs
	TARN_VERSION=$$(sed -n 's/^  VERSION //p' CMakeLists.txt) doxygen docs/Doxyfile
	@echo "API reference: build/docs/html/index.html"

sessions: ## Run the sessions on pages of docs/ and take over what is printed
	cmake --preset release
	cmake --build --preset release --target $(addsuffix /all,$(wildcard tools examples nimbo agent))
	scripts/run-sessions --renew build/release/bin docs/guide.md docs/coming-from.md

symbols: ## Take over what the libraries export now as what they are meant to (cmake/symbols)
	cmake --preset release
	cmake --build --preset release --target TarnPlatform TarnRegFile
	scripts/check-symbols --renew build/release/lib

debian: ## Make Debian packages of what is shipped (build/release/*.deb)
	cmake --preset release
	cmake --build --preset release --target $(addsuffix /all,platform TarnRegFile board tools examples nimbo agent docs)
	cd build/release && rm -f *.deb && cpack

fuzz: ## Run each fuzzer for SECONDS=60, from its kept inputs
	scripts/run-fuzzers $(SECONDS)

torture: ## Kill, step through and starve what has to survive it, SECONDS=60 for each program
	cmake --preset release
	cmake --build --preset release --target tests/torture/all
	@for program in build/release/bin/torture_*; do \
	   echo "-- $$program"; $$program --seconds $(SECONDS) || exit 1; done

soak: ## Run board, daemon, agent and clients together, with faults and kills, for MINUTES=10
	cmake --preset release
	cmake --build --preset release --target tarnreg tarnsim nimbod tarn-shadowd
	python3 -B tests/soak/soak.py --bin build/release/bin --minutes $(MINUTES)

bench: ## Build what is shipped; print each figure beside its baseline and target (BENCH=--instructions)
	cmake --preset release
	cmake --build --preset release --target bench/all tarnreg tarnsim nimbod tarn-shadowd
	scripts/bench-table build/release $(BENCH)

format: ## Format all sources
	scripts/check-format --fix

format-check: ## Fail if a source is not formatted
	scripts/check-format

tidy: build ## Fail if clang-tidy finds something in the library or the programs
	scripts/check-tidy

include-check: ## Fail if an include points the wrong way
	scripts/check-includes

clean: ## Remove everything that was built
	rm -rf build
