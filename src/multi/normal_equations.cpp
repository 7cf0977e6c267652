#include "multi/normal_equations.h"

namespace kestor {

void fillOneSided(const NormalEquations<6>& sums, PairBlock& hessianII, PairBlock& hessianIJ,
                  PairBlock& hessianJJ, PairVector& gradientI, PairVector& gradientJ) {
    for (int a = 0; a < 6; ++a) {
        for (int b = 0; b < 6; ++b) {
            hessianII[a][b] = sums.hessian[a][b];
            hessianIJ[a][b] = -sums.hessian[a][b];
            hessianJJ[a][b] = sums.hessian[a][b];
        }
        gradientI[a] = -sums.gradient[a];
        gradientJ[a] = sums.gradient[a];
    }
}

void fillTwoSided(const NormalEquations<12>& sums, PairBlock& hessianII, PairBlock& hessianIJ,
                  PairBlock& hessianJJ, PairVector& gradientI, PairVector& gradientJ) {
    for (int a = 0; a < 6; ++a) {
        for (int b = 0; b < 6; ++b) {
            hessianII[a][b] = sums.hessian[a][b];
            hessianJJ[a][b] = sums.hessian[6 + a][6 + b];
            hessianIJ[a][b] = a <= b ? sums.hessian[a][6 + b] : sums.hessian[b][6 + a];
        }
        gradientI[a] = sums.gradient[a];
        gradientJ[a] = sums.gradient[6 + a];
    }
}

}  // namespace kestor
