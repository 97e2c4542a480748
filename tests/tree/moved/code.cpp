// SPDX-License-Identifier: MIT
void called();

void caller()
{
    called();
}
