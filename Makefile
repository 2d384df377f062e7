# Thin wrapper around CMake; the README's commands.
BUILD_DIR ?= build
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: all deps configure build demo test test-gpu gpu-bundle bench install clean

all: build

deps:
	@scripts/install-deps.sh

configure: deps
	cmake -S . -B $(BUILD_DIR) $(if $(QV_CUDA_ARCHS),-DQV_CUDA_ARCHS="$(QV_CUDA_ARCHS)") $(CMAKE_FLAGS)

build: configure
	cmake --build $(BUILD_DIR) -j $(JOBS)

demo: build
	$(BUILD_DIR)/tools/qvproc-demo --out $(BUILD_DIR)/demo

test: build
	ctest --test-dir $(BUILD_DIR) --output-on-failure -j $(JOBS)

# On a machine with a GPU: the same tests forced onto the CUDA backend.
test-gpu: build
	QV_DEVICE=cuda ctest --test-dir $(BUILD_DIR) --output-on-failure

# For a GPU host (no GStreamer, no internet there): a stripped Release build for sm_87 and
# sm_90 with tests and benchmarks, packed into build-gpu/gpu-bundle.tar.xz, and the Debian
# runtime in .gpu-runtime/. There: scripts/gpu-check.sh.
gpu-bundle: deps
	scripts/gpu-bundle.sh

bench: build
	$(BUILD_DIR)/bench/qvbench-kernels
	$(BUILD_DIR)/bench/qvbench --csv $(BUILD_DIR)/bench/qvbench.csv
	@if command -v gnuplot >/dev/null; then \
	  gnuplot -e "csv='$(BUILD_DIR)/bench/qvbench.csv'; png='$(BUILD_DIR)/bench/qvbench.png'" \
	    bench/qvbench.gp && echo "bench: plotted $(BUILD_DIR)/bench/qvbench.png"; \
	else echo "bench: gnuplot not found (apt-get install gnuplot-nox), plot skipped"; fi
	@if [ -z "$$DISPLAY" ] && command -v xvfb-run >/dev/null; then \
	  xvfb-run -a -s "-screen 0 1280x1024x24" $(BUILD_DIR)/bench/qvbench-display; \
	else $(BUILD_DIR)/bench/qvbench-display; fi

# Both plugins into GStreamer's plugin directory under PREFIX (default: CMAKE_INSTALL_PREFIX,
# /usr/local), the tools into PREFIX/bin, headers and qvvideoproc.pc for host applications.
install: build
	cmake --install $(BUILD_DIR) $(if $(PREFIX),--prefix $(PREFIX))

clean:
	rm -rf $(BUILD_DIR)
