#include "multi/row_sums.h"

namespace kestor {

void fillOneSided(const RowSums<6>& sums, PairBlock& hessianII, PairBlock& hessianIJ,
                  PairBlock& hessianJJ, PairVector& gradientI, PairVector& gradientJ) {
    for (int a = 0; a < 6; ++a) {
        for (int b = 0; b < 6; ++b) {
            hessianII[a][b] = sums.at(a, b);
            hessianIJ[a][b] = -sums.at(a, b);
            hessianJJ[a][b] = sums.at(a, b);
        }
        gradientI[a] = -sums.gradient[a];
        gradientJ[a] = sums.gradient[a];
    }
}

void fillTwoSided(const RowSums<12>& sums, PairBlock& hessianII, PairBlock& hessianIJ,
                  PairBlock& hessianJJ, PairVector& gradientI, PairVector& gradientJ) {
    for (int a = 0; a < 6; ++a) {
        for (int b = 0; b < 6; ++b) {
            hessianII[a][b] = sums.at(a, b);
            hessianJJ[a][b] = sums.at(6 + a, 6 + b);
            hessianIJ[a][b] = a <= b ? sums.at(a, 6 + b) : sums.at(b, 6 + a);
        }
        gradientI[a] = sums.gradient[a];
        gradientJ[a] = sums.gradient[6 + a];
    }
}

}  // namespace kestor
