corvalent_add_bench(histogram ${BENCH_DIR}/main.cpp LIBS sdk)
