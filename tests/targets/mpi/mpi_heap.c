/* An MPI job in which one rank (2) writes a byte past a block and the
 * others are correct; every rank ends with "rank N done". The byte falls in
 * the allocator's slack (a block of 20 bytes has 24), so that without the
 * agent the job runs to its end too. */
#include <mpi.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

int main(int argc, char** argv) {
  MPI_Init(&argc, &argv);
  int rank = 0, size = 0;
  MPI_Comm_rank(MPI_COMM_WORLD, &rank);
  MPI_Comm_size(MPI_COMM_WORLD, &size);
  char* block = malloc(20);
  memset(block, rank, 20);
  if (rank == 2) block[20] = 'x'; /* one byte past the end */
  int sum = 0, mine = block[0];
  MPI_Allreduce(&mine, &sum, 1, MPI_INT, MPI_SUM, MPI_COMM_WORLD);
  free(block);
  printf("rank %d done (%d)\n", rank, sum);
  MPI_Finalize();
  return 0;
}
