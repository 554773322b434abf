# The two commands of the README. CMake does the real work.
.PHONY: demo check bench mutants clean
demo:
	sh scripts/demo.sh
check:
	sh scripts/check.sh
bench:
	cmake -S . -B build/bench -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF >/dev/null
	cmake --build build/bench -j2 --target bench
mutants:
	sh scripts/mutants.sh
clean:
	rm -rf build
