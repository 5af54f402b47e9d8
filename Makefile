# make demo: install what is missing, build, and run the main job on the
#            bundled example.
# make test: install what is missing, build, and run the tests, then a short
#            fuzz run of the data file parser under AddressSanitizer and
#            UndefinedBehaviorSanitizer.
# make fuzz: the long fuzz run (a million cases).
BUILD ?= build
ASAN_BUILD ?= build-asan
JOBS ?= $(shell nproc)
FUZZ_CASES ?= 100000
FUZZ_LONG_CASES ?= 1000000
FUZZ_SEED ?= 1
FUZZ_JOBS ?= $(JOBS)

.PHONY: all deps configure build unit-test test fuzz-build fuzz-short fuzz demo clean

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
	$(MAKE) --no-print-directory fuzz-short

fuzz-build: deps
	cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOHMVOL3D_SANITIZE=ON \
	  -DOHMVOL3D_TESTS=OFF
	cmake --build $(ASAN_BUILD) -j $(JOBS) --target ohmvol3d_fuzz

# The inputs that once broke the parser, then mutated cases.
FUZZ_REGRESSIONS = $(wildcard tests/fuzz/crashes/*.dat)

fuzz-short: fuzz-build
	$(if $(FUZZ_REGRESSIONS),$(ASAN_BUILD)/ohmvol3d_fuzz --run $(FUZZ_REGRESSIONS))
	$(ASAN_BUILD)/ohmvol3d_fuzz --cases $(FUZZ_CASES) --jobs $(FUZZ_JOBS) --seed $(FUZZ_SEED) \
	  --corpus examples

fuzz: fuzz-build
	$(ASAN_BUILD)/ohmvol3d_fuzz --cases $(FUZZ_LONG_CASES) --jobs $(FUZZ_JOBS) --seed $(FUZZ_SEED) \
	  --corpus examples --keep-going

demo: build
	bash scripts/demo.sh $(BUILD)

clean:
	rm -rf $(BUILD) $(ASAN_BUILD)
