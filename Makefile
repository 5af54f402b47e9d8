# make demo: install what is missing, build, and run the main job on the
#            bundled example.
# make test: install what is missing, build, and run the tests.
BUILD ?= build
JOBS ?= $(shell nproc)

.PHONY: all deps configure build test demo clean

all: build

deps:
	bash scripts/install-deps.sh

configure: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release

build: configure
	cmake --build $(BUILD) -j $(JOBS)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

demo: build
	bash scripts/demo.sh $(BUILD)

clean:
	rm -rf $(BUILD)
