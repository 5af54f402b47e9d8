# make demo: install what is missing, build, and run the main job on the
#            bundled example.
# make test: install what is missing, build, and run the tests; then the
#            tests again built with AddressSanitizer and
#            UndefinedBehaviorSanitizer (make test-asan), and a short fuzz run
#            of every reader in that build.
# make fuzz: the long fuzz run: six million data files, and a million
#            cases of each other reader (.ivp, model, results, ini files).
# make test-asan: the whole test suite built with AddressSanitizer and
#            UndefinedBehaviorSanitizer alone.
BUILD ?= build
ASAN_BUILD ?= build-asan
JOBS ?= $(shell nproc)
FUZZ_CASES ?= 100000
FUZZ_LONG_CASES ?= 6000000
FUZZ_READER_CASES ?= 5000
FUZZ_READER_LONG_CASES ?= 1000000
FUZZ_SEED ?= 1
FUZZ_JOBS ?= $(JOBS)

.PHONY: all deps configure build unit-test test asan-configure test-asan fuzz-build fuzz-short fuzz demo clean

all: build

deps:
	bash scripts/install-deps.sh

configure: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release

build: configure
	cmake --build $(BUILD) -j $(JOBS)

unit-test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

test: unit-test
	$(MAKE) --no-print-directory test-asan
	$(MAKE) --no-print-directory fuzz-short

# One sanitizer build serves the test suite and the fuzz driver. Leak
# reports are off: the numerical libraries keep their work buffers to the
# end of the process.
asan-configure: deps
	cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOHMVOL3D_SANITIZE=ON \
	  -DOHMVOL3D_TESTS=ON

test-asan: asan-configure
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=0 ctest --output-on-failure -j $(JOBS)

fuzz-build: asan-configure
	cmake --build $(ASAN_BUILD) -j $(JOBS) --target ohmvol3d_fuzz ohmvol3d_fuzz_readers

# The inputs that once broke the parser, then mutated cases.
FUZZ_REGRESSIONS = $(wildcard tests/fuzz/crashes/*.dat)

fuzz-short: fuzz-build
	$(if $(FUZZ_REGRESSIONS),$(ASAN_BUILD)/ohmvol3d_fuzz --run $(FUZZ_REGRESSIONS))
	$(ASAN_BUILD)/ohmvol3d_fuzz --cases $(FUZZ_CASES) --jobs $(FUZZ_JOBS) --seed $(FUZZ_SEED) \
	  --corpus examples
	ASAN_OPTIONS=detect_leaks=0 $(ASAN_BUILD)/ohmvol3d_fuzz_readers --cases $(FUZZ_READER_CASES) \
	  --seed $(FUZZ_SEED)

fuzz: fuzz-build
	$(ASAN_BUILD)/ohmvol3d_fuzz --cases $(FUZZ_LONG_CASES) --jobs $(FUZZ_JOBS) --seed $(FUZZ_SEED) \
	  --corpus examples --keep-going
	ASAN_OPTIONS=detect_leaks=0 $(ASAN_BUILD)/ohmvol3d_fuzz_readers \
	  --cases $(FUZZ_READER_LONG_CASES) --seed $(FUZZ_SEED)

demo: build
	bash scripts/demo.sh $(BUILD)

clean:
	rm -rf $(BUILD) $(ASAN_BUILD)
